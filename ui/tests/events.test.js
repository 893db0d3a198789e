import { test } from 'node:test';
import assert from 'node:assert/strict';
import { matchEventEntry } from '../assets/js/events.js';

// Event rows get new ids in every listing: the entry to enable or delete is found by name and
// owner (the grid scenario switches one), and of look-alikes that act differently none is guessed.
test('event tasks of the grid are found by name, owner and state, never guessed', () => {
  const entry = (id, name, owner, over) => ({ id, task_name: name, owner: { 0: owner }, enable: true, event: 'bootup', script: 'true', ...over });
  const entries = [
    entry(1, 'Mail', 'root'), entry(2, 'Mail', 'alice'), entry(3, 'Twice', 'root'), entry(4, 'Twice', 'root', { enable: false }),
    entry(5, 'Same', 'root'), entry(6, 'Same', 'root'), entry(7, 'Differ', 'root', { script: 'a' }), entry(8, 'Differ', 'root'),
  ];
  const cases = [
    ['Mail', 'alice', true, { id: 2 }], ['Mail', 'bob', true, 'missing'], ['Twice', 'root', false, { id: 4 }],
    ['Same', 'root', true, { id: 5 }], ['Differ', 'root', true, 'ambiguous'],
  ];
  for (const [name, owner, enable, want] of cases) {
    const m = matchEventEntry({ id: 1007, type: 'event_script', name, owner, enable }, entries);
    assert.deepEqual(m.error ?? { id: m.entry.id }, want, `${name}/${owner}`);
  }
});
