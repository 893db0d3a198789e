// The run status of "view" ({id, running, pid, last_run}) as the result dialog shows it.

// Seconds since the epoch from a time as the store writes it: a number of seconds, or a
// text "YYYY-MM-DD HH:MM[:SS]" in local time (a "T" or a zone suffix is accepted too).
export function timeToEpoch(value) {
  if (Number.isFinite(value)) return value;
  if (typeof value !== 'string' || value === '') return null;
  const m = /^(\d{4})-(\d{2})-(\d{2})[ T](\d{2}):(\d{2})(?::(\d{2})(?:\.\d+)?)?(Z|[+-]\d{2}:?\d{2})?$/.exec(value.trim());
  if (!m) return null;
  if (m[7]) {
    const ms = Date.parse(value.trim().replace(' ', 'T'));
    return Number.isNaN(ms) ? null : ms / 1000;
  }
  const d = new Date(+m[1], +m[2] - 1, +m[3], +m[4], +m[5], +(m[6] ?? 0));
  return d.getTime() / 1000;
}

export function formatDuration(seconds) {
  if (!Number.isFinite(seconds) || seconds < 0) return '';
  const s = Math.round(seconds);
  if (s < 60) return `${s} s`;
  const h = Math.floor(s / 3600);
  const min = Math.floor((s % 3600) / 60);
  const sec = s % 60;
  if (h > 0) return `${h} h ${min} min`;
  return sec ? `${min} min ${sec} s` : `${min} min`;
}

const pad2 = (n) => String(n).padStart(2, '0');

// A time for display: "YYYY-MM-DD HH:MM:SS" in local time.
export function formatTimestamp(value) {
  const epoch = timeToEpoch(value);
  if (epoch === null) return typeof value === 'string' ? value : '';
  const d = new Date(epoch * 1000);
  return `${d.getFullYear()}-${pad2(d.getMonth() + 1)}-${pad2(d.getDate())} ${pad2(d.getHours())}:${pad2(d.getMinutes())}:${pad2(d.getSeconds())}`;
}

// One run as the page shows it, from a run of ORVA.Core.TaskRuns or the "last_run" of
// "view": {runId, trigger, start, end, duration, exitCode, signal, result, output}.
export function describeRun(lr) {
  const r = lr && typeof lr === 'object' ? lr : {};
  const start = timeToEpoch(r.start);
  const end = timeToEpoch(r.end);
  return {
    runId: Number.isInteger(r.run_id) ? r.run_id : null,
    trigger: typeof r.trigger === 'string' ? r.trigger : '',
    start: r.start ? formatTimestamp(r.start) : '',
    end: r.end ? formatTimestamp(r.end) : '',
    duration: start !== null && end !== null && end >= start ? formatDuration(end - start) : '',
    exitCode: Number.isInteger(r.exit_code) ? r.exit_code : null,
    signal: Number.isInteger(r.signal) && r.signal > 0 ? r.signal : null,
    result: typeof r.result === 'string' ? r.result : '',
    output: typeof r.output === 'string' ? r.output : '',
  };
}

// {running, pid, last}: last is null when the task never ran, else describeRun of it.
export function describeRunStatus(status) {
  const s = status && typeof status === 'object' ? status : {};
  const lr = s.last_run;
  return {
    running: s.running === true,
    pid: Number.isInteger(s.pid) ? s.pid : null,
    last: lr && typeof lr === 'object' ? describeRun(lr) : null,
  };
}

// Whether the dialog should ask again: while the task runs, and shortly after a start
// until the status shows that run (the run is detached and may lag a moment). A run
// counts as shown when its start differs from the one seen before the start
// (`baselineStart`, undefined when not known); without a baseline, when it lies after
// the start. Starts are the appliance's wall-clock time, which may be hours off the
// browser's: a known baseline is never second-guessed by the browser's clock.
export function shouldPoll(desc, startedAt, now, baselineStart = undefined, graceMs = 5000) {
  if (desc.running) return true;
  if (startedAt === null || now - startedAt >= graceMs) return false;
  const start = desc.last ? desc.last.start : '';
  if (baselineStart !== undefined) return start === baselineStart;
  const epoch = desc.last ? timeToEpoch(desc.last.start) : null;
  if (epoch !== null && epoch * 1000 >= startedAt - 2000) return false;
  return true;
}
