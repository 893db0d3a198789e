// The task grid's model: sorting, paging, what each row allows, and the request
// parameters of the list and of the bulk operations.

import { isEditableKind } from './kinds.js';

export const PAGE_SIZES = [10, 25, 50, 100];
export const DEFAULT_PAGE_SIZE = 25;

// Sortable columns: the grid's column id to the list's "sort_by".
export const SORT_COLUMNS = {
  enable: 'enable',
  name: 'name',
  type: 'type',
  owner: 'owner',
  action: 'action',
  next: 'next_trigger_time',
};

export const EVENT_TYPE = 'event_script';

export function initialState() {
  return { sortBy: 'next_trigger_time', sortDir: 'asc', page: 0, pageSize: DEFAULT_PAGE_SIZE };
}

// Clicking a header: the same column flips the direction, another starts ascending.
// Either way the grid goes back to the first page.
export function toggleSort(state, sortBy) {
  if (state.sortBy === sortBy) return { ...state, sortDir: state.sortDir === 'asc' ? 'desc' : 'asc', page: 0 };
  return { ...state, sortBy, sortDir: 'asc', page: 0 };
}

export function setPageSize(state, size) {
  if (!PAGE_SIZES.includes(size)) return state;
  // Keep the first visible row on the new page.
  const first = state.page * state.pageSize;
  return { ...state, pageSize: size, page: Math.floor(first / size) };
}

export function listParams(state) {
  return {
    sort_by: state.sortBy,
    sort_direction: state.sortDir,
    offset: state.page * state.pageSize,
    limit: state.pageSize,
  };
}

export function pageCount(total, pageSize) {
  return Math.max(1, Math.ceil(Math.max(0, total) / pageSize));
}

// The page to show when `total` tasks exist: the same one, or the last one that has rows.
export function clampPage(state, total) {
  const last = pageCount(total, state.pageSize) - 1;
  return state.page > last ? { ...state, page: last } : state;
}

// {first, last, total} of the rows on the page, 1-based; first is 0 when there are none.
export function pageRange(state, total, rowsOnPage) {
  if (total <= 0 || rowsOnPage <= 0) return { first: 0, last: 0, total: Math.max(0, total) };
  const first = state.page * state.pageSize + 1;
  return { first, last: first + rowsOnPage - 1, total };
}

export function isEventTask(item) {
  return item.type === EVENT_TYPE;
}

// What the page lets the user do with one listed task. Event tasks are kept by the
// event scheduler: their ids in the list are not task ids, so they never go to the
// task operations (run, result, edit); enabling and deleting go to the event scheduler.
export function rowCapabilities(item) {
  const event = isEventTask(item);
  return {
    toggle: item.can_edit === true,
    edit: !event && item.can_edit === true && isEditableKind(item.type),
    run: !event && item.can_run === true,
    result: !event,
    delete: item.can_delete === true,
  };
}

// One task as the bulk operations name it: {id, real_owner} with real_owner only for
// a task that belongs to a user.
export function taskRef(item) {
  const ref = { id: item.id };
  if (typeof item.real_owner === 'string' && item.real_owner !== '') ref.real_owner = item.real_owner;
  return ref;
}

const capabilityOf = { enable: 'toggle', disable: 'toggle', run: 'run', delete: 'delete' };

// Splits the selected items for a bulk action: store tasks, event tasks, and those the
// action does not apply to. Enabling skips tasks already enabled, disabling those
// already disabled.
export function bulkPlan(items, action) {
  const cap = capabilityOf[action];
  const plan = { tasks: [], events: [], skipped: [], unchanged: [] };
  for (const item of items) {
    if (!rowCapabilities(item)[cap]) plan.skipped.push(item);
    else if ((action === 'enable' && item.enable) || (action === 'disable' && !item.enable)) plan.unchanged.push(item);
    else if (isEventTask(item)) plan.events.push(item);
    else plan.tasks.push(item);
  }
  return plan;
}

export function setEnableParams(items, enable) {
  return { status: items.map((it) => ({ ...taskRef(it), enable })) };
}

export function taskListParams(items) {
  return { tasks: items.map(taskRef) };
}

// A row's identity across reloads. Event tasks get new ids in every listing, so they
// are known by name and owner.
export function rowKey(item) {
  if (isEventTask(item)) return `event:${item.owner}:${item.name}`;
  return `task:${item.real_owner ?? ''}:${item.id}`;
}
