// The task editor's model: the task object of "get" to form values and back to the
// parameters of "set"/"create", for the common part and for each kind's "extra".
// Form values are what the inputs hold (numbers as entered text), so validation sees
// exactly what the user typed.

import { scheduleToForm, formToSchedule } from './schedule.js';

// The kinds that can be created and edited through the task scheduler API.
export const KINDS = ['script', 'beep', 'recycle', 'service'];

// Whole number within [min, max] from an input's text; null when it is not one.
export function parseIntIn(text, min, max) {
  const s = typeof text === 'number' ? String(text) : String(text ?? '').trim();
  if (!/^-?\d+$/.test(s)) return null;
  const n = Number(s);
  return Number.isSafeInteger(n) && n >= min && n <= max ? n : null;
}

// Limits of the store's record, in bytes of UTF-8, stated in the form and checked
// before saving.
export const NAME_MAX_BYTES = 255;
export const SCRIPT_MAX_BYTES = 4095;
const encoder = new TextEncoder();
export const utf8Length = (text) => encoder.encode(String(text ?? '')).length;

const numText = (v) => (Number.isInteger(v) ? String(v) : '');
const INT32_MAX = 2147483647;

// ---- script ---------------------------------------------------------------------

const script = {
  toForm(extra) {
    return { script: typeof extra?.script === 'string' ? extra.script : '' };
  },
  fromForm(form, original) {
    const errors = {};
    if (form.script.trim() === '') errors.script = 'val.script';
    else if (utf8Length(form.script) > SCRIPT_MAX_BYTES) errors.script = { key: 'val.script_long', vars: { max: SCRIPT_MAX_BYTES, n: utf8Length(form.script) } };
    return { extra: { ...(original ?? {}), script: form.script }, errors };
  },
};

// ---- beep -----------------------------------------------------------------------

export const BEEP_MIN = 1;
export const BEEP_MAX = 600;

const beep = {
  toForm(extra) {
    const d = extra?.beep_duration;
    // A new task's default arrives as the text "60"; a stored one as a number.
    if (Number.isInteger(d)) return { duration: String(d) };
    if (typeof d === 'string' && /^\s*-?\d+\s*$/.test(d)) return { duration: d.trim() };
    return { duration: '60' };
  },
  fromForm(form, original) {
    const errors = {};
    const n = parseIntIn(form.duration, BEEP_MIN, BEEP_MAX);
    if (n === null) errors.duration = { key: 'val.int_range', vars: { min: BEEP_MIN, max: BEEP_MAX } };
    return { extra: { ...(original ?? {}), beep_duration: n ?? form.duration }, errors };
  },
};

// ---- recycle bin ----------------------------------------------------------------

// Characters the cleaning tool refuses in an extension (a dot included: one extension
// per entry), and the blank.
export const FORBIDDEN_EXT_CHARS = '^.\\?/:*`$"><| ';

// "doc, .pdf  tmp" to ["doc", "pdf", "tmp"]: split at commas, semicolons and blanks; a
// leading dot is dropped; each extension once, in the order given.
export function parseExtensions(text) {
  const out = [];
  for (let part of String(text ?? '').split(/[\s,;]+/)) {
    part = part.replace(/^\.+/, '');
    if (part !== '' && !out.includes(part)) out.push(part);
  }
  return out;
}

export function badExtension(ext) {
  return [...ext].some((c) => FORBIDDEN_EXT_CHARS.includes(c) || c.charCodeAt(0) < 32);
}

// A share name typed by the user; null when it cannot be one.
export function cleanShareName(text) {
  const s = String(text ?? '').trim();
  if (s === '' || s.includes('/') || /[\u0000-\u001f]/.test(s)) return null;
  return s;
}

const recycle = {
  toForm(extra) {
    const csp = extra?.clean_share_policy ?? {};
    const cfp = extra?.clean_file_policy ?? {};
    const rp = cfp.reserve_policy ?? {};
    const policy = ['size', 'time'].includes(cfp.policy) ? cfp.policy : 'clean_all';
    const exts = Array.isArray(rp.extension)
      ? rp.extension.map((e) => e?.file_ext).filter((e) => typeof e === 'string' && e !== '')
      : [];
    return {
      cleanAll: typeof csp.clean_all === 'boolean' ? csp.clean_all : true,
      shares: Array.isArray(csp.shares) ? csp.shares.filter((s) => typeof s === 'string') : [],
      policy,
      size: numText(cfp.size),
      sortType: cfp.sort_type === 0 ? 0 : 1,
      time: numText(cfp.time),
      keepGreater: rp.size_greater_check === true,
      greater: numText(rp.size_greater),
      keepSmaller: rp.size_smaller_check === true,
      smaller: numText(rp.size_smaller),
      keepExt: rp.extension_check === true,
      extensions: exts.join(', '),
      enableBins: false,
      includeHome: false,
    };
  },
  fromForm(form, original) {
    const errors = {};
    const range = { key: 'val.int_range', vars: { min: 1, max: INT32_MAX } };
    const extra = { ...(original ?? {}) };
    delete extra.enableRecycle;

    if (!form.cleanAll && form.shares.length === 0) errors.shares = 'val.shares';
    extra.clean_share_policy = { clean_all: form.cleanAll, shares: [...form.shares] };

    const cf = { policy: form.policy };
    if (form.policy === 'size') {
      const size = parseIntIn(form.size, 1, INT32_MAX);
      if (size === null) errors.size = range;
      else cf.size = size;
      cf.sort_type = form.sortType === 0 ? 0 : 1;
    } else if (form.policy === 'time') {
      const time = parseIntIn(form.time, 1, INT32_MAX);
      if (time === null) errors.time = range;
      else cf.time = time;
    } else {
      cf.policy = 'clean_all';
    }

    const rp = {
      size_greater_check: form.keepGreater,
      size_smaller_check: form.keepSmaller,
      extension_check: form.keepExt,
    };
    if (form.keepGreater) {
      const n = parseIntIn(form.greater, 1, INT32_MAX);
      if (n === null) errors.greater = range;
      else rp.size_greater = n;
    }
    if (form.keepSmaller) {
      const n = parseIntIn(form.smaller, 1, INT32_MAX);
      if (n === null) errors.smaller = range;
      else rp.size_smaller = n;
    }
    if (form.keepExt) {
      const exts = parseExtensions(form.extensions);
      const bad = exts.find(badExtension);
      if (exts.length === 0) errors.extensions = 'val.extensions';
      else if (bad !== undefined) errors.extensions = { key: 'val.extension', vars: { ext: bad } };
      else rp.extension = exts.map((e) => ({ file_ext: e }));
    }
    cf.reserve_policy = rp;
    extra.clean_file_policy = cf;

    if (form.enableBins) {
      extra.enableRecycle = form.cleanAll ? (form.includeHome ? 'all_include_home' : 'all') : 'select';
    }
    return { extra, errors };
  },
};

// ---- services -------------------------------------------------------------------

const service = {
  toForm(extra) {
    const list = Array.isArray(extra?.services) ? extra.services : [];
    return {
      action: extra?.action === 'start' ? 'start' : 'stop',
      services: list
        .filter((s) => s && typeof s.id === 'string')
        .map((s) => ({
          type: s.type === 'package' ? 'package' : 'service',
          id: s.id,
          name: typeof s.name === 'string' ? s.name : s.id,
          enable: s.enable === true,
        })),
    };
  },
  fromForm(form, original) {
    const errors = {};
    if (!form.services.some((s) => s.enable)) errors.services = 'val.services';
    const extra = {
      ...(original ?? {}),
      action: form.action === 'start' ? 'start' : 'stop',
      services: form.services.map((s) => ({ type: s.type, id: s.id, name: s.name, enable: s.enable === true })),
    };
    return { extra, errors };
  },
};

// The appliance's own text of each built-in service (section and key of the system
// texts, texts/LANG/strings.json), so the form names them as the task list does.
export const SERVICE_TEXT_KEYS = {
  WinShare: ['network', 'win_share_service'],
  MacShare: ['network', 'mac_share_subject'],
  UnixShare: ['unixshare', 'unixshare_title'],
  PrinterBeacon: ['network', 'printerBeacon_subject'],
  LoginGuard: ['tree', 'leaf_loginguard'],
  FileXferTls: ['tree', 'leaf_filexfer_tls'],
  FileXferSsh: ['tree', 'leaf_filexfer_ssh'],
  FileXfer: ['tree', 'leaf_filexfer'],
  ClockServer: ['time', 'clock_service'],
};

// The label of one entry of the service list: a package by its display name, a
// built-in service by the system texts, else by the page's own text, else by its id.
export function serviceLabel(entry, t, systemTexts) {
  if (entry.type === 'package') return entry.name || entry.id;
  const sk = Object.hasOwn(SERVICE_TEXT_KEYS, entry.id) ? SERVICE_TEXT_KEYS[entry.id] : null;
  const sys = sk ? systemTexts?.[sk[0]]?.[sk[1]] : undefined;
  if (typeof sys === 'string' && sys !== '') return sys;
  const key = `svc.${entry.id}`;
  const text = t(key);
  return text === key ? entry.id : text;
}

const kinds = { script, beep, recycle, service };

// Whether the editor knows this kind's form. Tasks of other apps are not edited here:
// "set" rebuilds a task from the request alone and would drop what their app stored.
export function isEditableKind(type) {
  return Object.hasOwn(kinds, type);
}

// The form of the whole editor from a task object ("get" reply).
export function taskToForm(task, kind, today) {
  return {
    name: typeof task.name === 'string' ? task.name : '',
    owner: typeof task.owner === 'string' ? task.owner : '',
    enable: task.enable !== false,
    schedule: scheduleToForm(task.schedule, today),
    app: kinds[kind].toForm(task.extra),
  };
}

// Parameters of "create" (isNew) or "set" from the editor's form and the task object it
// was filled from. Returns {params, errors}; errors maps fields ("name", "owner",
// "schedule.date", "app.script", ...) to a text key or {key, vars}.
export function formToParams(form, task, kind, isNew) {
  const errors = {};
  const params = {};
  const name = form.name.trim();
  if (task.can_edit_name === false && !isNew) params.name = task.name;
  else if (name === '') errors.name = 'val.name';
  else if (utf8Length(name) > NAME_MAX_BYTES) errors.name = { key: 'val.name_long', vars: { max: NAME_MAX_BYTES } };
  else params.name = name;

  if (task.can_edit_owner === true) {
    const owner = form.owner.trim();
    if (owner === '') errors.owner = 'val.owner';
    else params.owner = owner;
  } else {
    params.owner = task.owner;
  }
  params.enable = form.enable === true;

  const sched = formToSchedule(form.schedule, task.schedule);
  for (const [k, v] of Object.entries(sched.errors)) errors[`schedule.${k}`] = v;
  params.schedule = sched.schedule;

  const app = kinds[kind].fromForm(form.app, task.extra && typeof task.extra === 'object' ? task.extra : {});
  for (const [k, v] of Object.entries(app.errors)) errors[`app.${k}`] = v;
  params.extra = app.extra;

  if (isNew) {
    params.type = kind;
  } else {
    params.id = task.id;
    if (typeof task.real_owner === 'string' && task.real_owner !== '') params.real_owner = task.real_owner;
  }
  return { params, errors };
}
