import { test } from 'node:test';
import assert from 'node:assert/strict';
import { describeRunStatus, formatDuration, shouldPoll } from '../assets/js/runstatus.js';

test('a finished run as shown: its start, how long it took', () => {
  const { last } = describeRunStatus({ running: false, last_run: { start: '2025-03-10 12:00:00', end: '2025-03-10 12:02:05', exit_code: 3, result: 'failed' } });
  assert.deepEqual([last.start, last.end, last.duration, last.exitCode], ['2025-03-10 12:00:00', '2025-03-10 12:02:05', '2 min 5 s', 3]);
  for (const [s, want] of [[60, '1 min'], [7322, '2 h 2 min'], [-1, '']]) assert.equal(formatDuration(s), want, String(s));
});

test('polling goes on while running and shortly after a start until the new run shows', () => {
  const t0 = new Date(2025, 2, 10, 12, 0, 0).getTime();
  const old = { running: false, last: { start: '2025-03-10 11:00:00' } };
  const fresh = { running: false, last: { start: '2025-03-10 12:00:01' } };
  const cases = [
    ['running', { running: true, last: null }, null, t0, undefined, true],
    ['started, old run still shown', old, t0, t0 + 1500, undefined, true],
    ['started, new run shown', fresh, t0, t0 + 1500, undefined, false],
    ['started, old run shown, grace over', old, t0, t0 + 6000, undefined, false],
    // The appliance's clock may be hours off the browser's: a known baseline decides.
    ['baseline: the old run, though the appliance clock is ahead', fresh, t0, t0 + 1000, fresh.last.start, true],
    ['baseline: a different start is the new run', { running: false, last: { start: 'odd clock' } }, t0, t0 + 1000, old.last.start, false],
  ];
  for (const [name, desc, startedAt, now, baseline, want] of cases) assert.equal(shouldPoll(desc, startedAt, now, baseline), want, name);
});
