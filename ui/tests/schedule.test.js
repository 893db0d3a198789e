import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  isValidDate, parseTime, parseWeekDays, formatWeekDays, scheduleToForm, formToSchedule,
  repeatChoices, repeatValue, parseRepeatValue, isOncePast, monthlyShortMonthDay,
  DEFAULT_MINUTE_STEPS, DEFAULT_HOUR_STEPS,
} from '../assets/js/schedule.js';

const TODAY = '2025-03-10';

// A schedule as "get" gives it (keys renamed for the UI).
const base = {
  repeat_date: 'daily', date: '2025-03-01', week_day: '', hour: 0, minute: 0,
  repeat_hour: 0, repeat_min: 0, last_work_hour: 0,
  repeat_min_store_config: [1, 5, 10, 15, 20, 30], repeat_hour_store_config: [1, 2, 3, 4, 5, 6, 8, 12],
};

test('dates, times and week days are checked, not guessed', () => {
  const dates = [
    ['2024-02-29', true], ['2023-02-29', false], ['2025-04-31', false], ['2025-13-01', false], ['2025-01-00', false],
    ['2025-1-01', false], ['2025-01-01 ', false], [null, false], ['2100-02-29', false], ['2000-02-29', true],
  ];
  for (const [d, ok] of dates) assert.equal(isValidDate(d), ok, String(d));

  const times = [
    ['23:59', { hour: 23, minute: 59 }], ['7:05', { hour: 7, minute: 5 }], ['24:00', null], ['12:60', null],
    [undefined, null],
  ];
  for (const [s, want] of times) assert.deepEqual(parseTime(s), want, String(s));

  const days = [
    [' 5, 1,1 ', [1, 5]], ['7,-1,a,', []], [null, []], ['1,,2', [1, 2]],
  ];
  for (const [s, want] of days) assert.deepEqual(parseWeekDays(s), want, String(s));
  assert.equal(formatWeekDays([5, 0, 3, 3, 9]), '0,3,5');
});

test('scheduleToForm reads every kind of schedule', () => {
  const cases = [
    { name: 'server default', s: base, want: { repeat: 'daily', date: '2025-03-01', time: '00:00', repeatMode: 'none', repeatEvery: 0, lastHour: 23, weekDays: [] } },
    { name: 'weekly at 08:30', s: { ...base, repeat_date: 'weekly', week_day: '1,3,5', hour: 8, minute: 30 }, want: { repeat: 'weekly', weekDays: [1, 3, 5], time: '08:30' } },
    { name: 'every 15 minutes until 18', s: { ...base, repeat_min: 15, last_work_hour: 18, hour: 6 }, want: { repeatMode: 'min', repeatEvery: 15, lastHour: 18, time: '06:00' } },
    { name: 'both set: minutes win', s: { ...base, repeat_hour: 2, repeat_min: 5, last_work_hour: 20 }, want: { repeatMode: 'min', repeatEvery: 5 } },
    { name: 'bad date', s: { ...base, date: '2025-02-30' }, want: { date: TODAY } },
    { name: 'out of range time', s: { ...base, hour: 25, minute: -1 }, want: { time: '00:00' } },
    { name: 'null', s: null, want: { repeat: 'daily', date: TODAY, time: '00:00', repeatMode: 'none' } },
  ];
  for (const c of cases) {
    const form = scheduleToForm(c.s, TODAY);
    for (const [k, v] of Object.entries(c.want)) assert.deepEqual(form[k], v, `${c.name}: ${k}`);
  }
});

test('repeat steps come from the server, keep the current value, and fall back', () => {
  let f = scheduleToForm({ ...base, repeat_min_store_config: [30, 5, 'x', -1, 0], repeat_min: 7, last_work_hour: 23 }, TODAY);
  assert.deepEqual(f.minuteSteps, [5, 7, 30]);
  f = scheduleToForm({ ...base, repeat_min_store_config: undefined, repeat_hour_store_config: [] }, TODAY);
  assert.deepEqual(f.minuteSteps, DEFAULT_MINUTE_STEPS);
  assert.deepEqual(f.hourSteps, DEFAULT_HOUR_STEPS);
  const choices = repeatChoices(scheduleToForm(base, TODAY)).map((c) => c.value);
  assert.equal(choices[0], 'none');
  assert.ok(choices.includes('min:15') && choices.includes('hour:12'));
  assert.equal(new Set(choices).size, choices.length);
  for (const v of choices) assert.equal(repeatValue({ ...parseRepeatValue(v) }), v);
  assert.deepEqual(parseRepeatValue('min:0'), { repeatMode: 'none', repeatEvery: 0 });
  assert.deepEqual(parseRepeatValue('days:3'), { repeatMode: 'none', repeatEvery: 0 });
});

test('form to schedule and back keeps what the user set and what the editor does not touch', () => {
  const schedules = [
    { ...base, repeat_date: 'daily', hour: 3, minute: 7, repeat_min: 20, last_work_hour: 9 },
    { ...base, repeat_date: 'weekly', week_day: '0,6', hour: 23, minute: 59, repeat_hour: 12, last_work_hour: 23, extra_key: 'kept' },
  ];
  for (const s of schedules) {
    const { schedule, errors } = formToSchedule(scheduleToForm(s, TODAY), s);
    assert.deepEqual(errors, {}, JSON.stringify(s));
    for (const k of ['repeat_date', 'date', 'hour', 'minute', 'repeat_min', 'repeat_hour']) {
      assert.equal(schedule[k], s[k], `${k} of ${JSON.stringify(s)}`);
    }
    if (s.repeat_date === 'weekly') assert.equal(schedule.week_day, s.week_day);
    if (s.repeat_min || s.repeat_hour) assert.equal(schedule.last_work_hour, s.last_work_hour);
    assert.deepEqual(schedule.repeat_min_store_config, s.repeat_min_store_config);
    assert.equal(schedule.extra_key, s.extra_key);
  }
});

test('formToSchedule writes the edits and refuses bad ones', () => {
  const form = (over) => ({ ...scheduleToForm(base, TODAY), ...over });
  const cases = [
    { name: 'switch to weekly', f: { repeat: 'weekly', weekDays: [5, 1] }, want: { repeat_date: 'weekly', week_day: '1,5' } },
    { name: 'repeat by minutes clears hours', f: { repeatMode: 'min', repeatEvery: 10, lastHour: 20 }, orig: { ...base, repeat_hour: 3 }, want: { repeat_min: 10, repeat_hour: 0, last_work_hour: 20 } },
    { name: 'repeat by hours clears minutes', f: { repeatMode: 'hour', repeatEvery: 4, lastHour: 23 }, orig: { ...base, repeat_min: 5 }, want: { repeat_min: 0, repeat_hour: 4, last_work_hour: 23 } },
    { name: 'no repeat clears both', f: { repeatMode: 'none' }, orig: { ...base, repeat_min: 5, repeat_hour: 2, last_work_hour: 4 }, want: { repeat_min: 0, repeat_hour: 0, last_work_hour: 23 } },
    { name: 'last hour equal to first hour', f: { time: '09:30', repeatMode: 'min', repeatEvery: 5, lastHour: 9 }, want: { last_work_hour: 9 } },
    { name: 'weekly without days', f: { repeat: 'weekly', weekDays: [] }, errors: ['weekDays'] },
    { name: 'last hour before first run', f: { time: '10:00', repeatMode: 'hour', repeatEvery: 1, lastHour: 9 }, errors: ['lastHour'] },
    { name: 'bad date and time', f: { date: '2025-02-29', time: '25:00' }, errors: ['date', 'time'] },
    { name: 'unknown repeat', f: { repeat: 'hourly' }, errors: ['repeat'] },
  ];
  for (const c of cases) {
    const { schedule, errors } = formToSchedule(form(c.f), c.orig ?? base);
    assert.deepEqual(Object.keys(errors).sort(), [...c.errors ?? []].sort(), c.name);
    for (const [k, v] of Object.entries(c.want ?? {})) assert.deepEqual(schedule[k], v, `${c.name}: ${k}`);
  }
  const { schedule } = formToSchedule(form({}), { ...base, next_trigger_time: '2025-03-11 00:00' });
  assert.equal('next_trigger_time' in schedule, false);
});

test('past once schedules and short months are noticed', () => {
  const now = '2025-03-10 12:30:00';
  const cases = [
    [{ repeat: 'once', date: '2025-03-10', time: '12:29' }, true],
    [{ repeat: 'once', date: '2025-03-10', time: '12:30' }, false],
    [{ repeat: 'once', date: '2024-12-31', time: '23:59' }, true],
    [{ repeat: 'daily', date: '2020-01-01', time: '00:00' }, false],
    [{ repeat: 'once', date: 'bad', time: '00:00' }, false],
  ];
  for (const [f, want] of cases) assert.equal(isOncePast(f, now), want, JSON.stringify(f));
  for (const [repeat, date, want] of [['monthly', '2025-01-31', 31], ['monthly', '2025-01-28', 0], ['daily', '2025-01-31', 0]]) {
    assert.equal(monthlyShortMonthDay({ repeat, date }), want, `${repeat} ${date}`);
  }
});
