import { test } from 'node:test';
import assert from 'node:assert/strict';
import { taskToForm, formToParams, parseIntIn, badExtension, cleanShareName, serviceLabel, isEditableKind } from '../assets/js/kinds.js';
import { translator } from '../assets/js/i18n.js';
import { texts } from './texts.js';

const TODAY = '2025-03-10';

// Task objects as "get" answers them for a new task of each kind (the schedule is schedule.test's).
const task = (type, extra, over) => ({ id: -1, name: '', owner: 'root', enable: true, type, can_edit_name: true, can_edit_owner: false, extra, ...over });
const fresh = {
  script: task('script', { script: '' }, { can_edit_owner: true }),
  beep: task('beep', { beep_duration: '60' }),
  service: task('service', { action: 'stop', services: [{ type: 'service', id: 'WinShare', name: 'WinShare', enable: false }] }),
};

const save = (kind, task, edit, isNew = false) => {
  const form = taskToForm(task, kind, TODAY);
  edit(form);
  return formToParams(form, task, kind, isNew);
};

test('whole numbers in range only; only the creatable kinds have an editor, whatever the name', () => {
  for (const [text, want] of [[' 42 ', 42], ['1.5', null], ['0x10', null]]) assert.equal(parseIntIn(text, 1, 600), want, text);
  for (const k of ['report', 'event_script', 'toString', '__proto__']) assert.equal(isEditableKind(k), false, k);
});

test('set parameters name the task and its real owner, and keep what the form does not show', () => {
  const task = { ...fresh.beep, id: 12, name: 'Nightly beep', real_owner: 'alice', owner: 'alice', extra: { beep_duration: 900, note: 'x' } };
  const { params, errors } = save('beep', task, (f) => { f.enable = false; f.app.duration = '600'; });
  assert.deepEqual(errors, {});
  const { schedule: sched, ...rest } = params;
  assert.deepEqual(rest, { id: 12, real_owner: 'alice', name: 'Nightly beep', owner: 'alice', enable: false, extra: { beep_duration: 600, note: 'x' } });
  assert.equal('real_owner' in save('beep', { ...task, real_owner: '' }, () => {}).params, false, 'a system task has no real_owner');
});

test('common part and beep: what saves and what is refused', () => {
  const locked = { ...fresh.beep, id: 5, name: 'System beep', can_edit_name: false };
  const cases = [
    { name: 'owner kept when not editable', kind: 'beep', edit: (f) => { f.name = 'b'; f.owner = 'mallory'; }, want: { owner: 'root' } },
    { name: 'a locked name stays as stored', task: locked, kind: 'beep', edit: (f) => { f.name = ''; }, want: { name: 'System beep' } },
    { name: 'empty script', kind: 'script', edit: (f) => { f.name = 's'; f.app.script = ' \n '; }, errors: ['app.script'] },
    { name: 'schedule errors are prefixed', kind: 'beep', edit: (f) => { f.name = 'b'; f.schedule.repeat = 'weekly'; f.schedule.weekDays = []; }, errors: ['schedule.weekDays'] },
  ];
  for (const c of cases) {
    const { params, errors } = save(c.kind, c.task ?? fresh[c.kind], c.edit, !c.task);
    assert.deepEqual(Object.keys(errors).sort(), c.errors ?? [], c.name);
    for (const [k, v] of Object.entries(c.want ?? {})) assert.equal(params[k], v, c.name);
  }
});

// A stored task with every member set: unchanged, it is written back the same (less the switch).
test('recycle form: a stored task written back; policies, exceptions and the recycle bin switch', () => {
  const stored = {
    clean_share_policy: { clean_all: false, shares: ['docs', 'media'] },
    clean_file_policy: {
      policy: 'size', size: 100, sort_type: 0,
      reserve_policy: { size_greater_check: true, size_greater: 50, size_smaller_check: false, extension_check: true, extension: [{ file_ext: 'doc' }, { file_ext: 'pdf' }] },
    },
  };
  const cases = [
    { name: 'unchanged', edit: () => {}, check: (x) => assert.deepEqual(x, stored) },
    { name: 'by size, oldest first', edit: (a) => { a.policy = 'size'; a.size = '2048'; a.sortType = 1; }, check: (x) => assert.deepEqual([x.clean_file_policy.size, x.clean_file_policy.sort_type], [2048, 1]) },
    { name: 'size missing', edit: (a) => { a.policy = 'size'; a.size = ''; }, errors: ['app.size'] },
    { name: 'a number of a policy not chosen is not checked', edit: (a) => { a.policy = 'clean_all'; a.size = 'x'; a.time = '-1'; }, check: (x) => assert.deepEqual(Object.keys(x.clean_file_policy), ['policy', 'reserve_policy']) },
    { name: 'selected shares required', edit: (a) => { a.cleanAll = false; a.shares = []; }, errors: ['app.shares'] },
    { name: 'keep smaller needs a size', edit: (a) => { a.keepSmaller = true; a.smaller = ''; }, errors: ['app.smaller'] },
    { name: 'extensions', edit: (a) => { a.keepExt = true; a.extensions = '.tmp, bak;log  tmp'; }, check: (x) => assert.deepEqual(x.clean_file_policy.reserve_policy.extension, [{ file_ext: 'tmp' }, { file_ext: 'bak' }, { file_ext: 'log' }]) },
    { name: 'extension with a dot', edit: (a) => { a.keepExt = true; a.extensions = 'tar.gz'; }, errors: ['app.extensions'] },
    { name: 'bins of all shares and homes', edit: (a) => { a.enableBins = true; a.includeHome = true; a.cleanAll = true; }, check: (x) => assert.equal(x.enableRecycle, 'all_include_home') },
    { name: 'bins of the selected shares', edit: (a) => { a.enableBins = true; a.includeHome = true; a.shares = ['docs']; }, check: (x) => assert.deepEqual([x.enableRecycle, x.clean_share_policy], ['select', { clean_all: false, shares: ['docs'] }]) },
  ];
  for (const c of cases) {
    const task = { ...fresh.beep, type: 'recycle', id: 9, name: 'r', extra: { ...stored, enableRecycle: 'all' } };
    const { params, errors } = save('recycle', task, (f) => c.edit(f.app));
    assert.deepEqual(Object.keys(errors), c.errors ?? [], c.name);
    c.check?.(params.extra);
  }
  // What the cleaning tool refuses in an extension, and what cannot be a share name.
  for (const c of '^.\\?/:*`$"><|\t ') assert.equal(badExtension(`a${c}b`), true, JSON.stringify(c));
  assert.equal(badExtension('ÄÖ_1-x'), false);
  for (const bad of ['   ', 'a/b', 'a\nb']) assert.equal(cleanShareName(bad), null, JSON.stringify(bad));
});

test('service form: selection required, stored junk left out, labels', () => {
  assert.deepEqual(Object.keys(save('service', fresh.service, (f) => { f.name = 's'; }, true).errors), ['app.services']);
  const stored = { ...fresh.service, extra: { action: 'start', services: [{ type: 'package', id: 'p', name: 'P', enable: true }, { id: 7 }, null] } };
  assert.deepEqual(taskToForm(stored, 'service', TODAY).app, { action: 'start', services: [{ type: 'package', id: 'p', name: 'P', enable: true }] });

  const t = translator('en', texts.en);
  // The appliance's own texts name built-in services first; a missing or empty one falls back.
  const sys = { network: { win_share_service: 'SMB/CIFS file service', mac_share_subject: '' }, time: 'x' };
  for (const [id, want] of [['WinShare', 'SMB/CIFS file service'], ['MacShare', 'AFP file service'], ['ClockServer', 'NTP service'], ['toString', 'toString']]) {
    assert.equal(serviceLabel({ type: 'service', id }, t, sys), want, id);
  }
});
