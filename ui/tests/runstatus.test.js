import { test } from 'node:test';
import assert from 'node:assert/strict';
import { describeRunStatus, timeToEpoch, formatDuration, formatTimestamp, shouldPoll } from '../assets/js/runstatus.js';

test('run status: never run, running, finished, killed', () => {
  assert.deepEqual(describeRunStatus({ id: 3, running: false, pid: null, last_run: null }), { running: false, pid: null, last: null });
  assert.deepEqual(describeRunStatus(null), { running: false, pid: null, last: null });

  assert.deepEqual(describeRunStatus({ id: 3, running: true, pid: 4242, last_run: null }), { running: true, pid: 4242, last: null });

  const done = describeRunStatus({
    id: 3, running: false, pid: null,
    last_run: { trigger: 'manual', start: '2025-03-10 12:00:00', end: '2025-03-10 12:02:05', exit_code: 3, signal: null, output: 'a\nb\n', result: 'failed' },
  });
  assert.deepEqual(done.last, {
    runId: null, trigger: 'manual', start: '2025-03-10 12:00:00', end: '2025-03-10 12:02:05', duration: '2 min 5 s',
    exitCode: 3, signal: null, result: 'failed', output: 'a\nb\n',
  });

  const killed = describeRunStatus({ running: false, last_run: { start: 100, end: 100, exit_code: null, signal: 9, result: 'failed', output: null } });
  assert.deepEqual([killed.last.signal, killed.last.exitCode, killed.last.output, killed.last.duration], [9, null, '', '0 s']);

  const ongoing = describeRunStatus({ running: true, pid: 7, last_run: { start: '2025-03-10 12:00:00', end: null, result: '' } });
  assert.deepEqual([ongoing.last.end, ongoing.last.duration], ['', '']);
});

test('times and durations', () => {
  const local = new Date(2025, 0, 2, 3, 4, 5).getTime() / 1000;
  const cases = [
    ['2025-01-02 03:04:05', local], ['2025-01-02 03:04', local - 5],
    ['2025-01-02T03:04:05Z', Date.UTC(2025, 0, 2, 3, 4, 5) / 1000], [1700000000, 1700000000],
    ['yesterday', null], [null, null], [NaN, null],
  ];
  for (const [v, want] of cases) assert.equal(timeToEpoch(v), want, String(v));
  assert.equal(formatTimestamp('2025-01-02T03:04:05'), '2025-01-02 03:04:05');
  assert.equal(formatTimestamp('not a time'), 'not a time');
  const durations = [[0, '0 s'], [60, '1 min'], [125, '2 min 5 s'], [7322, '2 h 2 min'], [-1, ''], [NaN, '']];
  for (const [s, want] of durations) assert.equal(formatDuration(s), want, String(s));
});

test('polling goes on while running and shortly after a start until the new run shows', () => {
  const fmt = (ms) => {
    const d = new Date(ms);
    const p = (n) => String(n).padStart(2, '0');
    return `${d.getFullYear()}-${p(d.getMonth() + 1)}-${p(d.getDate())} ${p(d.getHours())}:${p(d.getMinutes())}:${p(d.getSeconds())}`;
  };
  const t0 = new Date(2025, 2, 10, 12, 0, 0).getTime();
  const old = { running: false, last: { start: fmt(t0 - 3600e3) } };
  const fresh = { running: false, last: { start: fmt(t0 + 1000) } };
  const cases = [
    ['running', { running: true, last: null }, null, t0, undefined, true],
    ['started, old run still shown', old, t0, t0 + 1500, undefined, true],
    ['started, new run shown', fresh, t0, t0 + 1500, undefined, false],
    ['started, old run shown, grace over', old, t0, t0 + 6000, undefined, false],
    ['baseline: same start is the old run', old, t0, t0 + 1000, old.last.start, true],
    ['baseline: the old run, though the appliance clock is ahead', fresh, t0, t0 + 1000, fresh.last.start, true],
    ['baseline: a different start is the new run', { running: false, last: { start: 'odd clock' } }, t0, t0 + 1000, old.last.start, false],
  ];
  for (const [name, desc, startedAt, now, baseline, want] of cases) {
    assert.equal(shouldPoll(desc, startedAt, now, baseline), want, name);
  }
});
