import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  initialState, toggleSort, setPageSize, listParams, pageCount, clampPage, pageRange,
  rowCapabilities, bulkPlan, setEnableParams, taskListParams, rowKey, taskRef,
} from '../assets/js/grid.js';

const item = (over) => ({
  id: 1, name: 't', type: 'beep', enable: true, can_run: true, can_delete: true, can_edit: true, owner: 'root', ...over,
});

test('sorting: same column flips, another starts ascending, both go to page one', () => {
  let s = { ...initialState(), page: 3 };
  assert.equal(s.sortBy, 'next_trigger_time');
  s = toggleSort(s, 'name');
  assert.deepEqual([s.sortBy, s.sortDir, s.page], ['name', 'asc', 0]);
  s = toggleSort({ ...s, page: 2 }, 'name');
  assert.deepEqual([s.sortBy, s.sortDir, s.page], ['name', 'desc', 0]);
  s = toggleSort({ ...s, sortDir: 'desc' }, 'enable');
  assert.deepEqual([s.sortBy, s.sortDir], ['enable', 'asc']);
});

test('list parameters and paging arithmetic', () => {
  const cases = [
    { page: 0, size: 25, total: 0, params: { offset: 0, limit: 25 }, pages: 1, range: { first: 0, last: 0, total: 0 }, rows: 0 },
    { page: 1, size: 25, total: 26, params: { offset: 25, limit: 25 }, pages: 2, range: { first: 26, last: 26, total: 26 }, rows: 1 },
    { page: 9, size: 100, total: 10001, params: { offset: 900, limit: 100 }, pages: 101, range: { first: 901, last: 1000, total: 10001 }, rows: 100 },
  ];
  for (const c of cases) {
    const s = { ...initialState(), sortBy: 'name', sortDir: 'desc', page: c.page, pageSize: c.size };
    assert.deepEqual(listParams(s), { sort_by: 'name', sort_direction: 'desc', ...c.params });
    assert.equal(pageCount(c.total, c.size), c.pages);
    assert.deepEqual(pageRange(s, c.total, c.rows), c.range);
  }
  assert.equal(pageCount(-3, 10), 1);
});

test('a page past the end goes to the last page that has rows', () => {
  const s = { ...initialState(), page: 4, pageSize: 10 };
  assert.deepEqual([41, 40, 0].map((total) => clampPage(s, total).page), [4, 3, 0]);
  assert.equal(clampPage(s, 41), s, 'unchanged state is the same object');
});

test('page size change keeps the first visible row in view', () => {
  const cases = [[0, 25, 50, 0], [3, 25, 10, 7], [3, 10, 25, 1]];
  for (const [page, from, to, want] of cases) {
    const s = setPageSize({ ...initialState(), page, pageSize: from }, to);
    assert.equal(s.pageSize, to);
    assert.equal(s.page, want, `${page}@${from} -> ${to}`);
    // The row that was first is on the new page.
    const first = page * from;
    assert.ok(first >= s.page * to && first < (s.page + 1) * to);
  }
  const s = initialState();
  assert.equal(setPageSize(s, 33), s, 'sizes not offered are refused');
});

test('what each row allows', () => {
  const cases = [
    { name: 'beep', it: item(), want: { toggle: true, edit: true, run: true, result: true, delete: true } },
    { name: 'locked system task', it: item({ can_edit: false, can_run: false, can_delete: false }), want: { toggle: false, edit: false, run: false, result: true, delete: false } },
    { name: 'report task of another app', it: item({ type: 'report' }), want: { toggle: true, edit: false, run: true, result: true, delete: true } },
    { name: 'event task', it: item({ type: 'event_script', id: 1004 }), want: { toggle: true, edit: false, run: false, result: false, delete: true } },
    { name: 'flags that are not booleans', it: item({ can_edit: 1, can_run: 'yes', can_delete: null }), want: { toggle: false, edit: false, run: false, result: true, delete: false } },
  ];
  for (const c of cases) assert.deepEqual(rowCapabilities(c.it), c.want, c.name);
});

test('bulk plans split store tasks, event tasks and the rest', () => {
  const a = item({ id: 1, enable: true });
  const b = item({ id: 2, enable: false, real_owner: 'alice' });
  const locked = item({ id: 3, can_edit: false, can_run: false, can_delete: false });
  const ev = item({ id: 1000, type: 'event_script', enable: false });
  const all = [a, b, locked, ev];
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
  assert.deepEqual(bulkPlan([], 'run'), { tasks: [], events: [], skipped: [], unchanged: [] });
});

test('operation parameters name each task with its real owner only when it has one', () => {
  const list = [item({ id: 4 }), item({ id: 5, real_owner: 'bob' }), item({ id: 6, real_owner: '' })];
  assert.deepEqual(setEnableParams(list, false), {
    status: [{ id: 4, enable: false }, { id: 5, real_owner: 'bob', enable: false }, { id: 6, enable: false }],
  });
  assert.deepEqual(taskListParams(list), { tasks: [{ id: 4 }, { id: 5, real_owner: 'bob' }, { id: 6 }] });
  assert.deepEqual(taskRef({ id: 7, real_owner: 5 }), { id: 7 });
});

test('row keys: tasks by id and real owner, event tasks by name and owner', () => {
  assert.notEqual(rowKey(item({ id: 8, real_owner: 'a' })), rowKey(item({ id: 8 })));
  // Event tasks get new ids in every listing; their key must not change with it.
  assert.equal(rowKey(item({ type: 'event_script', id: 1000, name: 'n', owner: 'o' })),
    rowKey(item({ type: 'event_script', id: 1042, name: 'n', owner: 'o' })));
});
