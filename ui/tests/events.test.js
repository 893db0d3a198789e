import { test } from 'node:test';
import assert from 'node:assert/strict';
import { matchEventEntry, entryOwnerName, eventEnableParams } from '../assets/js/events.js';

const entry = (id, name, owner, over) => ({
  id, task_name: name, owner: { 0: owner }, enable: true, event: 'bootup', script: 'echo hi', ...over,
});
const row = (name, owner, enable = true) => ({ id: 1007, type: 'event_script', name, owner, enable });

test('event tasks of the grid are found by name and owner', () => {
  const entries = [
    entry(1, 'Boot mail', 'root'),
    entry(2, 'Boot mail', 'alice'),
    entry(3, 'Twice', 'root', { enable: true }),
    entry(4, 'Twice', 'root', { enable: false }),
    entry(5, 'Same', 'root'),
    entry(6, 'Same', 'root'),
    entry(7, 'Differ', 'root', { script: 'a' }),
    entry(8, 'Differ', 'root', { script: 'b' }),
  ];
  const cases = [
    [row('Boot mail', 'alice'), { id: 2 }],
    [row('Boot mail', 'bob'), { error: 'missing' }],
    [row('boot mail', 'root'), { error: 'missing' }],
    [row('Twice', 'root', false), { id: 4 }],
    [row('Same', 'root'), { id: 5 }],
    [row('Differ', 'root'), { error: 'ambiguous' }],
  ];
  for (const [r, want] of cases) {
    const m = matchEventEntry(r, entries);
    if (want.error) assert.deepEqual(m, { error: want.error }, `${r.name}/${r.owner}`);
    else assert.equal(m.entry.id, want.id, `${r.name}/${r.owner}`);
  }
  assert.deepEqual(matchEventEntry(row('x', 'y'), null), { error: 'missing' });
});

test('enable parameters carry the whole entry with the new state', () => {
  const e = entry(12, 'Shutdown log', 'alice', { event: 'shutdown', script: 'logger bye', enable: true });
  assert.deepEqual(eventEnableParams(e, false), {
    id: 12, task_name: 'Shutdown log', owner: 'alice', enable: false, event: 'shutdown', script: 'logger bye',
  });
  assert.equal(entryOwnerName({ owner: {} }), '');
  assert.equal(entryOwnerName({ owner: 'root' }), '');
  assert.equal(entryOwnerName({ owner: { 1001: 5 } }), '');
});
