import { test } from 'node:test';
import assert from 'node:assert/strict';
import { matchEventEntry, eventEnableParams } from '../assets/js/events.js';

const entry = (id, name, owner, over) => ({
  id, task_name: name, owner: { 0: owner }, enable: true, event: 'bootup', script: 'echo hi', ...over,
});

// Event rows get new ids in every listing: the entry to enable or delete is found by name and owner.
test('event tasks of the grid are found by name and owner; enabling sends the whole entry', () => {
  const entries = [
    entry(1, 'Boot mail', 'root'), entry(2, 'Boot mail', 'alice'),
    entry(3, 'Twice', 'root'), entry(4, 'Twice', 'root', { enable: false }),
    entry(5, 'Same', 'root'), entry(6, 'Same', 'root'),
    entry(7, 'Differ', 'root', { script: 'a' }), entry(8, 'Differ', 'root', { script: 'b' }),
  ];
  const cases = [
    ['Boot mail', 'alice', true, { id: 2 }], ['Boot mail', 'bob', true, 'missing'], ['boot mail', 'root', true, 'missing'],
    ['Twice', 'root', false, { id: 4 }], ['Same', 'root', true, { id: 5 }], ['Differ', 'root', true, 'ambiguous'],
  ];
  for (const [name, owner, enable, want] of cases) {
    const m = matchEventEntry({ id: 1007, type: 'event_script', name, owner, enable }, entries);
    assert.deepEqual(m.error ?? { id: m.entry.id }, want, `${name}/${owner}`);
  }
  assert.deepEqual(eventEnableParams(entry(12, 'Log', 'alice', { event: 'shutdown' }), false), {
    id: 12, task_name: 'Log', owner: 'alice', enable: false, event: 'shutdown', script: 'echo hi',
  });
});
