import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  isValidDate, parseTime, scheduleToForm, formToSchedule, DEFAULT_HOUR_STEPS,
} from '../assets/js/schedule.js';

const TODAY = '2025-03-10';

// A schedule as "get" gives it.
const base = {
  repeat_date: 'daily', date: '2025-03-01', week_day: '', hour: 0, minute: 0,
  repeat_hour: 0, repeat_min: 0, last_work_hour: 0,
  repeat_min_store_config: [1, 5, 10, 15, 20, 30], repeat_hour_store_config: [1, 2, 3, 4, 5, 6, 8, 12],
};

test('dates and times are checked, not guessed', () => {
  const dates = [['2024-02-29', true], ['2023-02-29', false], ['2100-02-29', false], ['2025-04-31', false], ['2025-1-01', false]];
  for (const [d, ok] of dates) assert.equal(isValidDate(d), ok, d);
  for (const [s, want] of [['7:05', { hour: 7, minute: 5 }], ['24:00', null], ['12:60', null]]) assert.deepEqual(parseTime(s), want, s);
});

test('scheduleToForm reads stored schedules, odd ones too', () => {
  const cases = [
    { s: base, want: { repeat: 'daily', time: '00:00', repeatMode: 'none', lastHour: 23 } },
    { s: { ...base, repeat_hour: 2, repeat_min: 5, last_work_hour: 20 }, want: { repeatMode: 'min', repeatEvery: 5, lastHour: 20 } },
    { s: { ...base, date: '2025-02-30', hour: 25, minute: -1 }, want: { date: TODAY, time: '00:00' } },
    // Steps from the server, the current value among them; none sent: the defaults.
    { s: { ...base, repeat_min_store_config: [30, 5, 'x', -1, 0], repeat_min: 7 }, want: { minuteSteps: [5, 7, 30] } },
    { s: { ...base, repeat_hour_store_config: [] }, want: { hourSteps: DEFAULT_HOUR_STEPS } },
  ];
  for (const c of cases) {
    const form = scheduleToForm(c.s, TODAY);
    for (const [k, v] of Object.entries(c.want)) assert.deepEqual(form[k], v, `${JSON.stringify(c.s)}: ${k}`);
  }
});

test('formToSchedule writes the edits, keeps what the editor does not touch and refuses bad ones', () => {
  const orig = { ...base, repeat_date: 'weekly', week_day: '0,6', hour: 23, minute: 59, repeat_hour: 12, last_work_hour: 23, extra_key: 'kept' };
  assert.deepEqual(formToSchedule(scheduleToForm(orig, TODAY), { ...orig, next_trigger_time: '2025-03-11 00:00' }), { schedule: orig, errors: {} });

  const form = (over) => ({ ...scheduleToForm(base, TODAY), ...over });
  const cases = [
    { f: { repeatMode: 'min', repeatEvery: 10, lastHour: 20 }, orig: { ...base, repeat_hour: 3 }, want: { repeat_min: 10, repeat_hour: 0, last_work_hour: 20 } },
    { f: { repeatMode: 'hour', repeatEvery: 4, lastHour: 23 }, orig: { ...base, repeat_min: 5 }, want: { repeat_min: 0, repeat_hour: 4 } },
    { f: { repeatMode: 'none' }, orig: { ...base, repeat_min: 5, repeat_hour: 2, last_work_hour: 4 }, want: { repeat_min: 0, repeat_hour: 0, last_work_hour: 23 } },
    { f: { time: '09:30', repeatMode: 'min', repeatEvery: 5, lastHour: 9 }, want: { last_work_hour: 9 } },
    { f: { repeat: 'weekly', weekDays: [] }, errors: ['weekDays'] },
    { f: { time: '10:00', repeatMode: 'hour', repeatEvery: 1, lastHour: 9 }, errors: ['lastHour'] },
    { f: { date: '2025-02-29', time: '25:00' }, errors: ['date', 'time'] },
  ];
  for (const c of cases) {
    const { schedule, errors } = formToSchedule(form(c.f), c.orig ?? base);
    assert.deepEqual(Object.keys(errors).sort(), c.errors ?? [], JSON.stringify(c.f));
    for (const [k, v] of Object.entries(c.want ?? {})) assert.deepEqual(schedule[k], v, `${JSON.stringify(c.f)}: ${k}`);
  }
});
