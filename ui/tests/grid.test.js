import { test } from 'node:test';
import assert from 'node:assert/strict';
import { initialState, toggleSort, clampPage, bulkPlan, setEnableParams, taskListParams } from '../assets/js/grid.js';

const item = (over) => ({
  id: 1, name: 't', type: 'beep', enable: true, can_run: true, can_delete: true, can_edit: true, owner: 'root', ...over,
});

// The header's second click sorts down; after deleting the last page's rows the grid
// shows the last page that has rows.
test('sort direction and the page after deleting', () => {
  const s = toggleSort({ ...initialState(), sortBy: 'name', page: 2 }, 'name');
  assert.deepEqual([s.sortBy, s.sortDir, s.page], ['name', 'desc', 0]);
  assert.deepEqual([41, 40, 0].map((total) => clampPage({ ...initialState(), page: 4, pageSize: 10 }, total).page), [4, 3, 0]);
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
  ];
  for (const [action, want] of cases) {
    const p = bulkPlan(all, action);
    assert.deepEqual({ tasks: ids(p.tasks), events: ids(p.events), skipped: ids(p.skipped), unchanged: ids(p.unchanged) }, want, action);
  }
  const list = [item({ id: 5, real_owner: 'bob' }), item({ id: 6, real_owner: '' })];
  assert.deepEqual(setEnableParams(list, false), { status: [{ id: 5, real_owner: 'bob', enable: false }, { id: 6, enable: false }] });
  assert.deepEqual(taskListParams(list), { tasks: [{ id: 5, real_owner: 'bob' }, { id: 6 }] });
});
