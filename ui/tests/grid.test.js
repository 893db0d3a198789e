import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  initialState, toggleSort, setPageSize, clampPage, pageRange, rowCapabilities, bulkPlan, setEnableParams, taskListParams,
} from '../assets/js/grid.js';

const item = (over) => ({
  id: 1, name: 't', type: 'beep', enable: true, can_run: true, can_delete: true, can_edit: true, owner: 'root', ...over,
});

test('sorting, page size and the page after a change keep the rows in view', () => {
  let s = toggleSort({ ...initialState(), page: 3 }, 'name');
  assert.deepEqual([s.sortBy, s.sortDir, s.page], ['name', 'asc', 0]);
  s = toggleSort({ ...s, page: 2 }, 'name');
  assert.deepEqual([s.sortBy, s.sortDir, s.page], ['name', 'desc', 0]);
  // The first visible row stays on the page shown after a size change.
  for (const [page, from, to, want] of [[3, 25, 10, 7], [3, 10, 25, 1]]) {
    assert.equal(setPageSize({ ...initialState(), page, pageSize: from }, to).page, want, `${page}@${from} -> ${to}`);
  }
  // After deleting the last page's rows: the last page that has rows.
  s = { ...initialState(), page: 4, pageSize: 10 };
  assert.deepEqual([41, 40, 0].map((total) => clampPage(s, total).page), [4, 3, 0]);
  assert.deepEqual(pageRange(s, 0, 0), { first: 0, last: 0, total: 0 });
  assert.deepEqual(pageRange(s, 41, 1), { first: 41, last: 41, total: 41 });
});

test('what each row allows', () => {
  const cases = [
    [item({ can_edit: false, can_run: false, can_delete: false }), { toggle: false, edit: false, run: false, result: true, delete: false }],
    [item({ type: 'event_script', id: 1004 }), { toggle: true, edit: false, run: false, result: false, delete: true }],
    [item({ can_edit: 1, can_run: 'yes', can_delete: null }), { toggle: false, edit: false, run: false, result: true, delete: false }],
  ];
  for (const [it, want] of cases) assert.deepEqual(rowCapabilities(it), want, JSON.stringify(it));
});

test('bulk plans split store tasks, event tasks and the rest; each task is named with its real owner', () => {
  const all = [
    item({ id: 1 }), item({ id: 2, enable: false, real_owner: 'alice' }),
    item({ id: 3, can_edit: false, can_run: false, can_delete: false }), item({ id: 1000, type: 'event_script', enable: false }),
  ];
  const ids = (list) => list.map((x) => x.id);
  const cases = [
    ['enable', { tasks: [2], events: [1000], skipped: [3], unchanged: [1] }],
    ['disable', { tasks: [1], events: [], skipped: [3], unchanged: [2, 1000] }],
    ['run', { tasks: [1, 2], events: [], skipped: [3, 1000], unchanged: [] }],
  ];
  for (const [action, want] of cases) {
    const p = bulkPlan(all, action);
    assert.deepEqual({ tasks: ids(p.tasks), events: ids(p.events), skipped: ids(p.skipped), unchanged: ids(p.unchanged) }, want, action);
  }
  const list = [item({ id: 5, real_owner: 'bob' }), item({ id: 6, real_owner: '' })];
  assert.deepEqual(setEnableParams(list, false), { status: [{ id: 5, real_owner: 'bob', enable: false }, { id: 6, enable: false }] });
  assert.deepEqual(taskListParams(list), { tasks: [{ id: 5, real_owner: 'bob' }, { id: 6 }] });
});
