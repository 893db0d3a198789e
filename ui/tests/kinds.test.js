import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  taskToForm, formToParams, parseIntIn, parseExtensions, badExtension, cleanShareName,
  serviceLabel, isEditableKind, KINDS,
} from '../assets/js/kinds.js';
import { translator } from '../assets/js/i18n.js';
import { texts } from './texts.js';

const TODAY = '2025-03-10';
const schedule = {
  repeat_date: 'daily', date: '2025-03-10', week_day: '', hour: 0, minute: 0, repeat_hour: 0, repeat_min: 0,
  last_work_hour: 23, repeat_min_store_config: [1, 5], repeat_hour_store_config: [1, 2],
};

// Task objects as "get" answers them for a new task of each kind.
const task = (type, extra, over) => ({ id: -1, name: '', owner: 'root', enable: true, type, can_edit_name: true, can_edit_owner: false, schedule, extra, ...over });
const service = (type, id, name) => ({ type, id, name, enable: false });
const fresh = {
  script: task('script', { script: '' }, { can_edit_owner: true }),
  beep: task('beep', { beep_duration: '60' }),
  recycle: task('recycle', { clean_share_policy: { clean_all: true, shares: null }, clean_file_policy: { policy: 'clean_all', reserve_policy: { size_greater_check: false, size_smaller_check: false, extension_check: false } } }),
  service: task('service', { action: 'stop', services: [service('service', 'WinShare', 'WinShare'), service('service', 'ClockServer', 'ClockServer'), service('package', 'mediad', 'Media Server')] }),
};

const save = (kind, task, edit, isNew = false) => {
  const form = taskToForm(task, kind, TODAY);
  edit(form);
  return formToParams(form, task, kind, isNew);
};
// An edit that must save: its parameters.
const saved = (...args) => {
  const { params, errors } = save(...args);
  assert.deepEqual(errors, {});
  return params;
};

test('parseIntIn takes whole numbers in range only', () => {
  const cases = [
    [' 42 ', 1, 600, 42], [42, 1, 600, 42], ['601', 1, 600, null], ['1.5', 1, 600, null],
    ['', 1, 600, null], [undefined, 1, 600, null], ['2147483648', 1, 2147483647, null],
    ['99999999999999999999', 1, 2147483647, null], ['0x10', 0, 100, null],
  ];
  for (const [text, lo, hi, want] of cases) assert.equal(parseIntIn(text, lo, hi), want, String(text));
});

test('only the creatable kinds have an editor, whatever the name', () => {
  for (const k of ['custom', 'report', 'backup', 'event_script', '', 'toString', '__proto__']) assert.equal(isEditableKind(k), false, k);
  assert.deepEqual(KINDS.filter(isEditableKind), KINDS);
});

// Each kind's create parameters as stored: the browser's editor scenario.
test('a new task carries its type and its trimmed name, no id and no real_owner', () => {
  const { schedule: sched, ...rest } = saved('script', fresh.script, (f) => { f.name = '  s task '; f.app.script = 'exit 3'; }, true);
  assert.deepEqual(rest, { type: 'script', name: 's task', owner: 'root', enable: true, extra: { script: 'exit 3' } });
});

test('set parameters name the task and its real owner', () => {
  const task = { ...fresh.beep, id: 12, name: 'Nightly beep', real_owner: 'alice', owner: 'alice', extra: { beep_duration: 900, note: 'x' } };
  const { schedule: sched, extra, ...rest } = saved('beep', task, (f) => { f.enable = false; f.app.duration = '600'; });  // no type
  assert.deepEqual(rest, { id: 12, real_owner: 'alice', name: 'Nightly beep', owner: 'alice', enable: false });
  assert.deepEqual(extra, { beep_duration: 600, note: 'x' });  // members the form does not show survive

  const sys = save('beep', { ...task, real_owner: '' }, () => {}).params;
  assert.equal('real_owner' in sys, false, 'a system task is named without real_owner');
});

test('common part: name and owner rules', () => {
  const cases = [
    { name: 'empty name', kind: 'beep', edit: (f) => { f.name = '   '; }, errors: ['name'] },
    { name: 'owner kept when not editable', kind: 'beep', edit: (f) => { f.name = 'b'; f.owner = 'mallory'; }, want: { owner: 'root' } },
    { name: 'script owner editable', kind: 'script', edit: (f) => { f.name = 's'; f.owner = ' alice '; f.app.script = 'true'; }, want: { owner: 'alice' } },
    { name: 'script owner required', kind: 'script', edit: (f) => { f.name = 's'; f.owner = ''; f.app.script = 'true'; }, errors: ['owner'] },
    { name: 'empty script', kind: 'script', edit: (f) => { f.name = 's'; f.app.script = ' \n '; }, errors: ['app.script'] },
    { name: 'schedule errors are prefixed', kind: 'beep', edit: (f) => { f.name = 'b'; f.schedule.repeat = 'weekly'; f.schedule.weekDays = []; }, errors: ['schedule.weekDays'] },
  ];
  for (const c of cases) {
    const { params, errors } = save(c.kind, fresh[c.kind], c.edit, true);
    assert.deepEqual(Object.keys(errors).sort(), c.errors ?? [], c.name);
    for (const [k, v] of Object.entries(c.want ?? {})) assert.equal(params[k], v, c.name);
  }
  // A name the task does not let the user change stays as stored.
  const locked = { ...fresh.beep, id: 5, name: 'System beep', can_edit_name: false };
  assert.equal(saved('beep', locked, (f) => { f.name = ''; }).name, 'System beep');
});

test('beep duration: the stored text or number shows, only 1..600 saves', () => {
  const shown = [[900, '900'], [' 7 ', '7'], ['abc', '60'], [null, '60'], [1.5, '60']];
  for (const [stored, want] of shown) {
    assert.equal(taskToForm({ ...fresh.beep, extra: { beep_duration: stored } }, 'beep', TODAY).app.duration, want, String(stored));
  }
  for (const [typed, ok] of [['600', true], ['0', false], ['601', false]]) {
    const { errors, params } = save('beep', fresh.beep, (f) => { f.name = 'b'; f.app.duration = typed; });
    assert.equal(Object.keys(errors).length === 0, ok, typed);
    if (ok) assert.equal(params.extra.beep_duration, Number(typed));
    else assert.deepEqual(errors['app.duration'], { key: 'val.int_range', vars: { min: 1, max: 600 } });
  }
});

test('recycle form reads a stored task and writes it back the same', () => {
  const extra = {
    clean_share_policy: { clean_all: false, shares: ['docs', 'media'] },
    clean_file_policy: {
      policy: 'size', size: 100, sort_type: 0,
      reserve_policy: { size_greater_check: true, size_greater: 50, size_smaller_check: false, extension_check: true, extension: [{ file_ext: 'doc' }, { file_ext: 'pdf' }] },
    },
  };
  const task = { ...fresh.recycle, id: 9, name: 'Clean', extra };
  const form = taskToForm(task, 'recycle', TODAY).app;
  assert.deepEqual(form, {
    cleanAll: false, shares: ['docs', 'media'], policy: 'size', size: '100', sortType: 0, time: '',
    keepGreater: true, greater: '50', keepSmaller: false, smaller: '', keepExt: true, extensions: 'doc, pdf',
    enableBins: false, includeHome: false,
  });
  assert.deepEqual(saved('recycle', task, () => {}).extra, extra);
});

test('recycle form: policies, exceptions and the recycle bin switch', () => {
  const cases = [
    { name: 'by size, oldest first', edit: (a) => { a.policy = 'size'; a.size = '2048'; a.sortType = 1; }, check: (x) => assert.deepEqual([x.clean_file_policy.size, x.clean_file_policy.sort_type], [2048, 1]) },
    { name: 'size missing', edit: (a) => { a.policy = 'size'; a.size = ''; }, errors: ['app.size'] },
    { name: 'age zero', edit: (a) => { a.policy = 'time'; a.time = '0'; }, errors: ['app.time'] },
    { name: 'a number of a policy not chosen is not checked', edit: (a) => { a.policy = 'clean_all'; a.size = 'x'; a.time = '-1'; }, check: (x) => assert.deepEqual(x.clean_file_policy, { policy: 'clean_all', reserve_policy: { size_greater_check: false, size_smaller_check: false, extension_check: false } }) },
    { name: 'selected shares required', edit: (a) => { a.cleanAll = false; a.shares = []; }, errors: ['app.shares'] },
    { name: 'keep smaller needs a size', edit: (a) => { a.keepSmaller = true; a.smaller = ''; }, errors: ['app.smaller'] },
    { name: 'extensions', edit: (a) => { a.keepExt = true; a.extensions = '.tmp, bak;log  tmp'; }, check: (x) => assert.deepEqual(x.clean_file_policy.reserve_policy.extension, [{ file_ext: 'tmp' }, { file_ext: 'bak' }, { file_ext: 'log' }]) },
    { name: 'extension with a dot', edit: (a) => { a.keepExt = true; a.extensions = 'tar.gz'; }, errors: ['app.extensions'] },
    { name: 'bins of all shares', edit: (a) => { a.enableBins = true; }, check: (x) => assert.equal(x.enableRecycle, 'all') },
    { name: 'bins of all shares and homes', edit: (a) => { a.enableBins = true; a.includeHome = true; }, check: (x) => assert.equal(x.enableRecycle, 'all_include_home') },
    { name: 'bins of the selected shares', edit: (a) => { a.enableBins = true; a.includeHome = true; a.cleanAll = false; a.shares = ['docs']; }, check: (x) => assert.deepEqual([x.enableRecycle, x.clean_share_policy], ['select', { clean_all: false, shares: ['docs'] }]) },
    { name: 'no switch, no enableRecycle', edit: () => {}, check: (x) => assert.equal('enableRecycle' in x, false) },
  ];
  for (const c of cases) {
    const task = { ...fresh.recycle, extra: { ...fresh.recycle.extra, enableRecycle: 'all' } };
    const { params, errors } = save('recycle', task, (f) => { f.name = 'r'; c.edit(f.app); }, true);
    assert.deepEqual(Object.keys(errors), c.errors ?? [], c.name);
    c.check?.(params.extra);
  }
  const bad = save('recycle', fresh.recycle, (f) => { f.name = 'r'; f.app.keepExt = true; f.app.extensions = 'ok, b|d'; }, true).errors;
  assert.deepEqual(bad['app.extensions'], { key: 'val.extension', vars: { ext: 'b|d' } });
});

test('extension and share name helpers', () => {
  assert.deepEqual(parseExtensions('..doc'), ['doc']);
  for (const c of '^.\\?/:*`$"><| ') assert.equal(badExtension(`a${c}b`), true, JSON.stringify(c));
  for (const ok of ['doc', 'tar-gz', 'x_1', 'ÄÖ']) assert.equal(badExtension(ok), false, ok);
  assert.equal(badExtension('a\tb'), true);
  assert.equal(cleanShareName(' my share '), 'my share');
  for (const bad of ['', '   ', 'a/b', 'a\nb']) assert.equal(cleanShareName(bad), null, JSON.stringify(bad));
});

test('service form: selection, action and labels', () => {
  const form = taskToForm(fresh.service, 'service', TODAY).app;
  assert.deepEqual([form.action, form.services.length], ['stop', 3]);
  const none = save('service', fresh.service, (f) => { f.name = 's'; }, true);
  assert.deepEqual(Object.keys(none.errors), ['app.services']);

  const stored = { ...fresh.service, extra: { action: 'start', services: [{ type: 'package', id: 'p', name: 'P', enable: true }, { id: 7 }, null] } };
  assert.deepEqual(taskToForm(stored, 'service', TODAY).app, { action: 'start', services: [{ type: 'package', id: 'p', name: 'P', enable: true }] });

  const t = translator('en', texts.en);
  assert.equal(serviceLabel({ type: 'service', id: 'NewThing', name: 'NewThing' }, t), 'NewThing');
  assert.equal(serviceLabel({ type: 'package', id: 'mediad', name: '' }, t), 'mediad');
  // The appliance's own texts name built-in services first; a missing or empty one falls back.
  const sys = { network: { win_share_service: 'SMB/CIFS file service', mac_share_subject: '' }, time: 'x' };
  for (const [id, want] of [['WinShare', 'SMB/CIFS file service'], ['MacShare', 'AFP file service'], ['ClockServer', 'NTP service'], ['toString', 'toString']]) {
    assert.equal(serviceLabel({ type: 'service', id }, t, sys), want, id);
  }
});
