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

export const EMPTY_FILTER = { q: '', type: '', owner: '', state: '' };
export const STATES = ['enabled', 'disabled'];

export function initialState() {
  return { sortBy: 'next_trigger_time', sortDir: 'asc', page: 0, pageSize: DEFAULT_PAGE_SIZE, filter: { ...EMPTY_FILTER } };
}

// The grid's state in the page address (?sort=name&dir=desc&size=50&page=3&q=...), so
// a reload or a shared link shows the same rows. Unknown or bad values are left out.
const SORT_VALUES = Object.values(SORT_COLUMNS);
export function stateToQuery(state) {
  const q = new URLSearchParams();
  const init = initialState();
  if (state.sortBy !== init.sortBy || state.sortDir !== init.sortDir) {
    q.set('sort', state.sortBy);
    q.set('dir', state.sortDir);
  }
  if (state.pageSize !== init.pageSize) q.set('size', String(state.pageSize));
  if (state.page > 0) q.set('page', String(state.page + 1));
  for (const k of Object.keys(EMPTY_FILTER)) if (state.filter[k]) q.set(k, state.filter[k]);
  return q.toString();
}

export function stateFromQuery(search) {
  const q = new URLSearchParams(search);
  const s = initialState();
  if (SORT_VALUES.includes(q.get('sort'))) s.sortBy = q.get('sort');
  if (q.get('dir') === 'desc') s.sortDir = 'desc';
  const size = Number(q.get('size'));
  if (PAGE_SIZES.includes(size)) s.pageSize = size;
  const page = Number(q.get('page'));
  if (Number.isSafeInteger(page) && page > 1) s.page = page - 1;
  for (const k of Object.keys(EMPTY_FILTER)) s.filter[k] = (q.get(k) ?? '').slice(0, 255);
  if (s.filter.state && !STATES.includes(s.filter.state)) s.filter.state = '';
  return s;
}

export function hasFilter(state) {
  return Object.values(state.filter).some((v) => v !== '');
}

// The list has no filter of its own: with a filter the page asks for every task and
// filters here. Search words match the name or the action text; owner and type exactly.
export function matchesFilter(item, filter) {
  if (filter.type && item.type !== filter.type) return false;
  if (filter.owner && (item.owner ?? '').toLowerCase() !== filter.owner.toLowerCase()) return false;
  if (filter.state === 'enabled' && item.enable !== true) return false;
  if (filter.state === 'disabled' && item.enable === true) return false;
  const words = filter.q.toLowerCase().split(/\s+/).filter(Boolean);
  const hay = `${item.name ?? ''} ${item.action ?? ''}`.toLowerCase();
  return words.every((w) => hay.includes(w));
}

// Clicking a header: the same column flips the direction, another starts ascending.
// Either way the grid goes back to the first page.
export function toggleSort(state, sortBy) {
  if (state.sortBy === sortBy) return { ...state, sortDir: state.sortDir === 'asc' ? 'desc' : 'asc', page: 0 };
  return { ...state, sortBy, sortDir: 'asc', page: 0 };
}

export function setFilter(state, filter) {
  return { ...state, filter: { ...state.filter, ...filter }, page: 0 };
}

export function setPageSize(state, size) {
  if (!PAGE_SIZES.includes(size)) return state;
  // Keep the first visible row on the new page.
  const first = state.page * state.pageSize;
  return { ...state, pageSize: size, page: Math.floor(first / size) };
}

export function listParams(state, all = false) {
  if (all) return { sort_by: state.sortBy, sort_direction: state.sortDir, offset: 0, limit: -1 };
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

// Why a row's control is off: a text key, or null when it is on.
export function rowReasons(item) {
  const event = isEventTask(item);
  const caps = rowCapabilities(item);
  const locked = 'row.reason_locked';
  return {
    toggle: caps.toggle ? null : locked,
    edit: caps.edit ? null : event ? 'row.reason_event_edit' : !isEditableKind(item.type) ? 'row.not_editable' : locked,
    run: caps.run ? null : event ? 'row.reason_event_run' : 'row.reason_norun',
    result: caps.result ? null : 'row.reason_event_run',
    delete: caps.delete ? null : locked,
    clone: caps.edit ? null : event ? 'row.reason_event_edit' : !isEditableKind(item.type) ? 'row.not_editable' : locked,
  };
}

// A service task's action names services by their ids where the module knows no text
// for them ("FileXfer"): the page puts its own label in their place.
export function serviceActionText(action, labelOf) {
  if (typeof action !== 'string') return '';
  return action.replace(/"([^"]*)"/g, (m, id) => {
    const label = labelOf(id);
    return label && label !== id ? `"${label}"` : m;
  });
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
