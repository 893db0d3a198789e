// The schedule editor's model: the task object's "schedule" member to the form's
// values and back. The form state is a plain object, so the conversion has no DOM.

export const REPEATS = ['once', 'daily', 'weekly', 'monthly'];
// Intervals offered when the server sends no list of its own.
export const DEFAULT_MINUTE_STEPS = [1, 5, 10, 15, 20, 30];
export const DEFAULT_HOUR_STEPS = [1, 2, 3, 4, 6, 8, 12];
// Week days in the order the editor shows them (Monday first); values as stored (0 = Sunday).
export const WEEK_ORDER = [1, 2, 3, 4, 5, 6, 0];

const pad2 = (n) => String(n).padStart(2, '0');

export function formatDate(d) {
  return `${d.getFullYear()}-${pad2(d.getMonth() + 1)}-${pad2(d.getDate())}`;
}

// A real calendar day written "YYYY-MM-DD".
export function isValidDate(text) {
  if (typeof text !== 'string') return false;
  const m = /^(\d{4})-(\d{2})-(\d{2})$/.exec(text);
  if (!m) return false;
  const [y, mo, d] = [Number(m[1]), Number(m[2]), Number(m[3])];
  if (mo < 1 || mo > 12 || d < 1) return false;
  return d <= new Date(Date.UTC(y, mo, 0)).getUTCDate();
}

// "HH:MM" to {hour, minute}, or null.
export function parseTime(text) {
  if (typeof text !== 'string') return null;
  const m = /^(\d{1,2}):(\d{2})$/.exec(text.trim());
  if (!m) return null;
  const hour = Number(m[1]);
  const minute = Number(m[2]);
  if (hour > 23 || minute > 59) return null;
  return { hour, minute };
}

export function formatTime(hour, minute) {
  return `${pad2(hour)}:${pad2(minute)}`;
}

// "1,3,5" to [1, 3, 5]: known days only, each once, ascending.
export function parseWeekDays(text) {
  if (typeof text !== 'string') return [];
  const days = new Set();
  for (const part of text.split(',')) {
    const s = part.trim();
    if (/^[0-6]$/.test(s)) days.add(Number(s));
  }
  return [...days].sort((a, b) => a - b);
}

export function formatWeekDays(days) {
  return [...new Set(days)].filter((d) => Number.isInteger(d) && d >= 0 && d <= 6).sort((a, b) => a - b).join(',');
}

const intIn = (v, lo, hi) => Number.isInteger(v) && v >= lo && v <= hi;

// Positive whole numbers of a store_config list, plus the current value, ascending.
function stepList(config, fallback, current) {
  const list = Array.isArray(config) ? config.filter((v) => Number.isInteger(v) && v > 0) : [];
  const steps = new Set(list.length ? list : fallback);
  if (Number.isInteger(current) && current > 0) steps.add(current);
  return [...steps].sort((a, b) => a - b);
}

// schedule: the task object's "schedule"; today: "YYYY-MM-DD" used when it has no date.
export function scheduleToForm(schedule, today) {
  const s = schedule && typeof schedule === 'object' ? schedule : {};
  const hour = intIn(s.hour, 0, 23) ? s.hour : 0;
  const minute = intIn(s.minute, 0, 59) ? s.minute : 0;
  let repeatMode = 'none';
  let repeatEvery = 0;
  if (Number.isInteger(s.repeat_min) && s.repeat_min > 0) {
    repeatMode = 'min';
    repeatEvery = s.repeat_min;
  } else if (Number.isInteger(s.repeat_hour) && s.repeat_hour > 0) {
    repeatMode = 'hour';
    repeatEvery = s.repeat_hour;
  }
  const lastHour = repeatMode !== 'none' && intIn(s.last_work_hour, 0, 23) ? s.last_work_hour : 23;
  return {
    repeat: REPEATS.includes(s.repeat_date) ? s.repeat_date : 'daily',
    date: isValidDate(s.date) ? s.date : today,
    weekDays: parseWeekDays(s.week_day),
    time: formatTime(hour, minute),
    repeatMode,
    repeatEvery,
    lastHour,
    minuteSteps: stepList(s.repeat_min_store_config, DEFAULT_MINUTE_STEPS, repeatMode === 'min' ? repeatEvery : 0),
    hourSteps: stepList(s.repeat_hour_store_config, DEFAULT_HOUR_STEPS, repeatMode === 'hour' ? repeatEvery : 0),
  };
}

// The repeat choices as one list: {value: "none" | "min:N" | "hour:N", mode, n}.
export function repeatChoices(form) {
  return [
    { value: 'none', mode: 'none', n: 0 },
    ...form.minuteSteps.map((n) => ({ value: `min:${n}`, mode: 'min', n })),
    ...form.hourSteps.map((n) => ({ value: `hour:${n}`, mode: 'hour', n })),
  ];
}

export function repeatValue(form) {
  return form.repeatMode === 'none' ? 'none' : `${form.repeatMode}:${form.repeatEvery}`;
}

export function parseRepeatValue(value) {
  const m = /^(min|hour):(\d+)$/.exec(value ?? '');
  if (!m || Number(m[2]) <= 0) return { repeatMode: 'none', repeatEvery: 0 };
  return { repeatMode: m[1], repeatEvery: Number(m[2]) };
}

// The form's values to the schedule object of "set"/"create". Members of the original
// object that the editor does not touch (the store_config lists, unknown keys) are kept.
// Returns {schedule, errors}; errors maps a form field to a text key and is empty when
// the schedule is valid.
export function formToSchedule(form, original) {
  const errors = {};
  const s = { ...(original && typeof original === 'object' ? original : {}) };
  delete s.next_trigger_time;

  if (!REPEATS.includes(form.repeat)) errors.repeat = 'val.required';
  else s.repeat_date = form.repeat;

  if (!isValidDate(form.date)) errors.date = 'val.date';
  else s.date = form.date;

  const time = parseTime(form.time);
  if (!time) errors.time = 'val.time';
  else {
    s.hour = time.hour;
    s.minute = time.minute;
  }

  if (form.repeat === 'weekly') {
    const days = formatWeekDays(form.weekDays ?? []);
    if (days === '') errors.weekDays = 'val.weekdays';
    else s.week_day = days;
  }

  if (form.repeatMode === 'min' || form.repeatMode === 'hour') {
    if (!Number.isInteger(form.repeatEvery) || form.repeatEvery <= 0) errors.repeat_every = 'val.required';
    s.repeat_min = form.repeatMode === 'min' ? form.repeatEvery : 0;
    s.repeat_hour = form.repeatMode === 'hour' ? form.repeatEvery : 0;
    if (!intIn(form.lastHour, 0, 23)) errors.lastHour = 'val.required';
    else if (time && form.lastHour < time.hour) errors.lastHour = 'val.last_hour';
    else s.last_work_hour = form.lastHour;
  } else {
    s.repeat_min = 0;
    s.repeat_hour = 0;
    s.last_work_hour = 23;
  }
  return { schedule: s, errors };
}

// True when a "once" schedule lies before `now`, the appliance's wall-clock time
// "YYYY-MM-DD HH:MM[:SS]" (the task runs by the appliance's clock, not the browser's).
export function isOncePast(form, now) {
  if (form.repeat !== 'once' || !isValidDate(form.date) || typeof now !== 'string') return false;
  const time = parseTime(form.time);
  if (!time) return false;
  return `${form.date} ${formatTime(time.hour, time.minute)}` < now.slice(0, 16);
}

// The appliance's clock as the page keeps it: its wall-clock time when asked, moved on
// by the time passed since. `now` "YYYY-MM-DD HH:MM:SS" from the server.
export function applianceClock(now, askedAt) {
  const m = /^(\d{4})-(\d{2})-(\d{2}) (\d{2}):(\d{2})(?::(\d{2}))?/.exec(now ?? '');
  if (!m) return null;
  const base = Date.UTC(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +(m[6] ?? 0));
  return (at) => {
    const d = new Date(base + (at - askedAt));
    return `${d.getUTCFullYear()}-${pad2(d.getUTCMonth() + 1)}-${pad2(d.getUTCDate())} ${pad2(d.getUTCHours())}:${pad2(d.getUTCMinutes())}:${pad2(d.getUTCSeconds())}`;
  };
}

// Day of month of a monthly schedule when some months lack it (29 to 31), else 0.
export function monthlyShortMonthDay(form) {
  if (form.repeat !== 'monthly' || !isValidDate(form.date)) return 0;
  const day = Number(form.date.slice(8));
  return day > 28 ? day : 0;
}
