// The create/edit dialog: "get" fills the form, "set" or "create" saves it. The next
// start times come from the appliance (ORVA.Core.TaskRuns "preview") as the user types.

import { ApiError, errorText, isMissingApi, ERR_NOT_LOGGED_IN } from './api.js';
import { h, icon, nextId, openModal } from './dom.js';
import {
  taskToForm, formToParams, isEditableKind, parseExtensions, cleanShareName, serviceLabel,
  BEEP_MIN, BEEP_MAX, NAME_MAX_BYTES, SCRIPT_MAX_BYTES, utf8Length,
} from './kinds.js';
import { REPEATS, WEEK_ORDER, repeatChoices, repeatValue, parseRepeatValue, isOncePast, monthlyShortMonthDay, applianceClock } from './schedule.js';
import { weekdayName } from './i18n.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const RUNS_API = 'ORVA.Core.TaskRuns';
const TS_EDIT_VERSION = 3;
const PREVIEW_DELAY_MS = 300;

// Which field a refusal of the store belongs to (its "msg" names the part it refused).
export function saveErrorField(err, task) {
  if (!(err instanceof ApiError)) return null;
  const msg = (err.msg || '').toLowerCase();
  if (msg.includes('(basic)')) {
    return task.can_edit_owner === true ? { field: 'owner', key: 'val.owner_unknown' } : { field: 'name', key: 'val.basic_refused' };
  }
  if (msg.includes('(schedule)')) return { field: 'schedule.date', key: 'val.schedule_refused' };
  if (msg.includes('(app)')) return { field: null, key: 'val.app_refused' };
  return null;
}

export class Editor {
  constructor({ dialog, client, getT, getTexts, getNames, confirm, toaster, onSaved }) {
    this.getTexts = getTexts ?? (() => null);
    this.getNames = getNames ?? (async () => []);
    this.confirm = confirm;
    this.dialog = dialog;
    this.client = client;
    this.getT = getT;
    this.toaster = toaster;
    this.onSaved = onSaved;
    this.form = dialog.querySelector('form');
    this.body = dialog.querySelector('#edit-body');
    this.title = dialog.querySelector('#edit-title');
    this.errorBox = dialog.querySelector('#edit-error');
    this.saveBtn = dialog.querySelector('#edit-save');
    this.session = 0;
    this.task = null;
    this.suspended = false;
    this.clock = null;
    this.clockInfo = null;
    // Closing asks first when something was changed (Escape, Cancel, the X).
    dialog.addEventListener('click', (ev) => {
      if (ev.target.closest('[data-close]')) this.requestClose();
    });
    dialog.addEventListener('cancel', (ev) => {
      ev.preventDefault();
      this.requestClose();
    });
    const resync = (ev) => {
      if (!this.task || !this.ctl) return;
      this.sync();
      this.revalidate(ev.target);
      this.schedulePreview();
    };
    this.body.addEventListener('input', resync);
    this.body.addEventListener('change', resync);
    this.form.addEventListener('submit', (ev) => {
      ev.preventDefault();
      this.save();
    });
  }

  get t() {
    return this.getT();
  }

  openCreate(kind) {
    return this.open({ kind, item: null });
  }

  openEdit(item) {
    return this.open({ kind: item.type, item });
  }

  openClone(item) {
    return this.open({ kind: item.type, item, clone: true });
  }

  isDirty() {
    return this.task !== null && this.ctl !== null && this.snapshot !== JSON.stringify(this.readForm());
  }

  async requestClose() {
    if (this.saving) return;
    if (this.isDirty() && this.confirm) {
      const t = this.t;
      const ok = await this.confirm({ title: t('confirm.discard_title'), body: t('confirm.discard'), ok: t('confirm.discard_ok') });
      if (!ok) return;
    }
    this.dialog.close('cancel');
  }

  // The session ended while editing: the dialog goes away with the edit kept, and comes
  // back once the user signed in again.
  suspend() {
    if (!this.dialog.open || !this.task) return false;
    this.suspended = true;
    this.dialog.close('session');
    return true;
  }

  resume() {
    if (!this.suspended) return false;
    this.suspended = false;
    openModal(this.dialog, () => this.closed());
    this.setError(this.t('edit.kept'), true);
    this.saveBtn.focus();
    return true;
  }

  discardSuspended() {
    this.suspended = false;
    this.task = null;
    this.ctl = null;
  }

  closed() {
    if (this.suspended) return;
    this.session++;
    clearTimeout(this.previewTimer);
  }

  async open({ kind, item, clone = false }) {
    const t = this.t;
    this.suspended = false;
    openModal(this.dialog, () => this.closed());
    const session = ++this.session;
    this.isNew = item === null || clone;
    this.kind = kind;
    this.title.textContent = clone ? t('edit.title_clone', { name: item.name })
      : this.isNew ? t('edit.title_new', { kind: t(`create.${kind}`) }) : t('edit.title', { name: item.name });
    this.body.replaceChildren(h('div', { class: 'grid-state', text: t('edit.loading') }));
    this.setError('');
    this.saveBtn.textContent = this.isNew ? t('dialog.create') : t('dialog.save');
    this.saveBtn.disabled = true;
    this.task = null;
    this.ctl = null;

    const ref = item ? { id: item.id } : null;
    if (ref && typeof item.real_owner === 'string' && item.real_owner !== '') ref.real_owner = item.real_owner;
    let task;
    try {
      const clock = this.loadClock();
      if (clone) {
        const [fresh, stored] = await Promise.all([
          this.client.call(TS_API, TS_EDIT_VERSION, 'get', { id: -1, type: kind }),
          this.client.call(TS_API, TS_EDIT_VERSION, 'get', ref),
        ]);
        // A copy: the stored task's settings under the new task's rules.
        task = { ...fresh, name: t('edit.copy_name', { name: stored.name }), enable: stored.enable, schedule: stored.schedule, extra: stored.extra };
        if (fresh.can_edit_owner === true) task.owner = stored.owner;
      } else {
        task = await this.client.call(TS_API, TS_EDIT_VERSION, 'get', this.isNew ? { id: -1, type: kind } : ref);
      }
      await clock;
    } catch (err) {
      if (session !== this.session) return;
      this.body.replaceChildren();
      this.setError(errorText(err, t));
      return;
    }
    if (session !== this.session) return;
    if (!task || typeof task !== 'object' || !isEditableKind(this.isNew ? kind : task.type ?? kind)) {
      this.body.replaceChildren();
      this.setError(t('row.not_editable'));
      return;
    }
    if (!this.isNew) this.kind = task.type ?? kind;
    this.task = task;
    this.originalName = this.isNew ? null : task.name;
    this.render(this.today());
    this.snapshot = JSON.stringify(this.readForm());
    this.saveBtn.disabled = false;
    const first = this.body.querySelector('input:not(:disabled), textarea, select');
    if (first) first.focus();
    this.schedulePreview(0);
    this.getNames().then((names) => {
      if (session === this.session) {
        this.names = names;
        this.checkDuplicate();
      }
    });
  }

  // The appliance's clock and time zone (ORVA.Core.TaskRuns "clock"); the browser's when
  // the server has no such call.
  async loadClock() {
    try {
      const askedAt = Date.now();
      const c = await this.client.call(RUNS_API, 1, 'clock', {});
      this.clock = applianceClock(c?.now, askedAt);
      this.clockInfo = this.clock ? { zone: c.time_zone || '', offset: c.utc_offset || '' } : null;
    } catch (err) {
      if (!isMissingApi(err)) throw err;
      this.clock = null;
      this.clockInfo = null;
    }
  }

  now() {
    if (this.clock) return this.clock(Date.now());
    const d = new Date();
    const p = (n) => String(n).padStart(2, '0');
    return `${d.getFullYear()}-${p(d.getMonth() + 1)}-${p(d.getDate())} ${p(d.getHours())}:${p(d.getMinutes())}:${p(d.getSeconds())}`;
  }

  today() {
    return this.now().slice(0, 10);
  }

  setError(msg, info = false) {
    this.errorBox.textContent = msg;
    this.errorBox.hidden = msg === '';
    this.errorBox.classList.toggle('info', info);
    this.errorBox.setAttribute('role', info ? 'status' : 'alert');
  }

  // ---- building the form ---------------------------------------------------------

  render(today) {
    const t = this.t;
    const task = this.task;
    const form = taskToForm(task, this.kind, today);
    this.fields = new Map();
    this.ctl = {};

    const general = h('fieldset', { class: 'section' }, h('legend', { text: t('edit.general') }));
    const name = h('input', { type: 'text', value: form.name, autocomplete: 'off', disabled: !this.isNew && task.can_edit_name === false });
    this.ctl.name = name;
    const owner = h('input', { type: 'text', value: form.owner, autocomplete: 'off', spellcheck: 'false', disabled: task.can_edit_owner !== true });
    this.ctl.owner = owner;
    const nameField = this.field('name', t('edit.name'), name, t('edit.name_hint', { max: NAME_MAX_BYTES }));
    this.ctl.dupNote = h('div', { class: 'warn-line', role: 'status', hidden: true });
    nameField.append(this.ctl.dupNote);
    general.append(h('div', { class: 'row' }, nameField,
      this.field('owner', t('edit.owner'), owner, task.can_edit_owner === true ? t('edit.owner_hint') : '')));
    const enable = h('input', { type: 'checkbox', checked: form.enable });
    this.ctl.enable = enable;
    general.append(h('label', { class: 'check' }, enable, t('edit.enabled')));

    const schedule = this.renderSchedule(form.schedule);
    const settings = h('fieldset', { class: 'section' }, h('legend', { text: t('edit.settings') }));
    const renderApp = { script: this.renderScript, beep: this.renderBeep, recycle: this.renderRecycle, service: this.renderService }[this.kind];
    settings.append(...renderApp.call(this, form.app));

    this.body.replaceChildren(general, schedule, settings);
    this.sync();
  }

  // A labelled control with its hint and error line; registered under `key` so that
  // validation errors find it.
  field(key, label, control, hint = '') {
    const id = control.id || nextId('f');
    control.id = id;
    const errId = `${id}-err`;
    const hintId = hint ? `${id}-hint` : null;
    const err = h('div', { class: 'error', id: errId, hidden: true });
    if (hintId) control.setAttribute('aria-describedby', hintId);
    this.fields.set(key, { control, err, hintId });
    return h('div', { class: 'field' }, h('label', { for: id, text: label }), control,
      hint ? h('div', { class: 'hint', id: hintId, text: hint }) : null, err);
  }

  // An error line for a group (fieldset) rather than one control.
  groupError(key, focusTarget) {
    const err = h('div', { class: 'error', id: nextId('gerr'), hidden: true });
    this.fields.set(key, { control: focusTarget, err, hintId: null, group: true });
    return err;
  }

  renderSchedule(s) {
    const t = this.t;
    const box = h('fieldset', { class: 'section' }, h('legend', { text: t('edit.schedule') }));
    const seg = h('div', { class: 'segmented', role: 'radiogroup', 'aria-label': t('sched.repeat') });
    const radioName = nextId('repeat');
    this.ctl.repeat = REPEATS.map((r) => {
      const input = h('input', { type: 'radio', name: radioName, value: r, checked: s.repeat === r });
      seg.append(h('label', {}, input, t(`sched.${r}`)));
      return input;
    });
    box.append(h('div', { class: 'field' }, h('span', { class: 'label', text: t('sched.repeat') }), seg));

    // Text fields, not the browser's date and time pickers: those follow the browser's
    // locale (12-hour clocks) instead of the page's language and the appliance's clock.
    const date = h('input', { type: 'text', value: s.date, required: true, inputmode: 'numeric', autocomplete: 'off', placeholder: t('sched.date_format'), class: 'date-input' });
    const time = h('input', { type: 'text', value: s.time, required: true, inputmode: 'numeric', autocomplete: 'off', placeholder: t('sched.time_format'), class: 'time-input' });
    this.ctl.date = date;
    this.ctl.time = time;
    const dateField = this.field('schedule.date', t('sched.date_start'), date);
    this.ctl.dateLabel = dateField.querySelector('label');
    box.append(h('div', { class: 'row' }, dateField, this.field('schedule.time', t('sched.time'), time, t('sched.time_hint'))));

    const days = h('div', { class: 'days' });
    this.ctl.days = WEEK_ORDER.map((d) => {
      const input = h('input', { type: 'checkbox', value: String(d), checked: s.weekDays.includes(d) });
      const long = weekdayName(t.lang, d, 'long');
      days.append(h('label', { title: long }, input, h('span', { 'aria-hidden': 'true', text: weekdayName(t.lang, d, 'short') }),
        h('span', { class: 'visually-hidden', text: long })));
      return input;
    });
    const daysErr = this.groupError('schedule.weekDays', this.ctl.days[0]);
    this.ctl.daysBox = h('fieldset', { class: 'field section' }, h('legend', { class: 'label', text: t('sched.days') }), days, daysErr);
    box.append(this.ctl.daysBox);

    const repeat = h('select', {});
    const groups = { min: h('optgroup', { label: t('sched.minutes') }), hour: h('optgroup', { label: t('sched.hours') }) };
    for (const c of repeatChoices(s)) {
      const label = c.mode === 'none' ? t('sched.no_repeat')
        : t(c.mode === 'min' ? 'sched.every_min' : 'sched.every_hour', { n: c.n });
      const opt = h('option', { value: c.value, text: label });
      if (c.mode === 'none') repeat.append(opt);
      else groups[c.mode].append(opt);
    }
    for (const g of Object.values(groups)) if (g.children.length) repeat.append(g);
    repeat.value = repeatValue(s);
    this.ctl.repeatSel = repeat;

    const last = h('select', {});
    for (let hr = 0; hr < 24; hr++) {
      const hh = String(hr).padStart(2, '0');
      last.append(h('option', { value: String(hr), text: t('sched.last_hour_opt', { h: hh }) }));
    }
    last.value = String(s.lastHour);
    this.ctl.last = last;
    const lastField = this.field('schedule.lastHour', t('sched.last_hour'), last);
    this.ctl.lastField = lastField;
    box.append(h('div', { class: 'row' }, this.field('schedule.repeat_every', t('sched.repeat_in_day'), repeat), lastField));

    this.ctl.pastNote = h('p', { class: 'note', role: 'status', text: t('sched.past'), hidden: true });
    this.ctl.monthNote = h('p', { class: 'note', role: 'status', hidden: true });
    const zone = this.clockInfo
      ? t('sched.zone', { zone: this.clockInfo.zone || this.clockInfo.offset, offset: this.clockInfo.offset, now: this.now().slice(0, 16) })
      : t('sched.zone_browser');
    this.ctl.preview = h('ol', { class: 'preview-list' });
    this.ctl.previewBox = h('div', { class: 'preview', hidden: true },
      h('div', { class: 'label', id: nextId('pv'), text: t('sched.preview') }), this.ctl.preview);
    this.ctl.previewBox.querySelector('ol').setAttribute('aria-labelledby', this.ctl.previewBox.firstChild.id);
    box.append(this.ctl.pastNote, this.ctl.monthNote, h('p', { class: 'hint zone-note', text: zone }), this.ctl.previewBox);
    this.scheduleSteps = { minuteSteps: s.minuteSteps, hourSteps: s.hourSteps };
    return box;
  }

  renderScript(app) {
    const t = this.t;
    const area = h('textarea', { rows: '8', spellcheck: 'false', autocapitalize: 'none', wrap: 'off' });
    area.value = app.script;
    this.ctl.script = area;
    const f = this.field('app.script', t('script.label'), area, t('script.hint', { max: SCRIPT_MAX_BYTES }));
    this.ctl.scriptCount = h('div', { class: 'counter', 'aria-live': 'polite' });
    f.append(this.ctl.scriptCount);
    return [f];
  }

  renderBeep(app) {
    const t = this.t;
    const input = h('input', { type: 'number', min: String(BEEP_MIN), max: String(BEEP_MAX), step: '1', value: app.duration, inputmode: 'numeric' });
    this.ctl.duration = input;
    const f = this.field('app.duration', t('beep.label'), input, t('beep.hint'));
    // Unit beside the number.
    const wrap = h('div', { class: 'inline' });
    input.replaceWith(wrap);
    wrap.append(input, h('span', { text: t('beep.unit') }));
    return [f];
  }

  renderRecycle(app) {
    const t = this.t;
    const out = [];
    this.shares = [...app.shares];

    // Which shares.
    const scopeName = nextId('scope');
    const allRadio = h('input', { type: 'radio', name: scopeName, value: 'all', checked: app.cleanAll });
    const selRadio = h('input', { type: 'radio', name: scopeName, value: 'selected', checked: !app.cleanAll });
    this.ctl.cleanAll = allRadio;
    const shareInput = h('input', { type: 'text', autocomplete: 'off', spellcheck: 'false', 'aria-label': t('recycle.share_input'), placeholder: t('recycle.share_input') });
    const addBtn = h('button', { type: 'button', class: 'btn sm', text: t('recycle.share_add') });
    const chips = h('div', { class: 'chips', role: 'list' });
    this.ctl.chips = chips;
    this.ctl.shareInput = shareInput;
    const addShare = () => {
      const names = shareInput.value.split(',');
      let bad = false;
      for (const raw of names) {
        if (raw.trim() === '') continue;
        const n = cleanShareName(raw);
        if (n === null) bad = true;
        else if (!this.shares.includes(n)) this.shares.push(n);
      }
      this.showFieldError('app.shares', bad ? 'val.share_name' : null);
      if (!bad) shareInput.value = '';
      this.renderChips();
      this.sync();
    };
    addBtn.addEventListener('click', addShare);
    shareInput.addEventListener('keydown', (ev) => {
      if (ev.key === 'Enter') {
        ev.preventDefault();
        addShare();
      }
    });
    const sharesErr = this.groupError('app.shares', shareInput);
    this.ctl.sharePicker = h('div', { class: 'sub-options' }, chips, h('div', { class: 'inline' }, shareInput, addBtn), sharesErr);
    const bins = h('input', { type: 'checkbox', checked: app.enableBins });
    const home = h('input', { type: 'checkbox', checked: app.includeHome });
    this.ctl.enableBins = bins;
    this.ctl.includeHome = home;
    this.ctl.homeLabel = h('label', { class: 'check' }, home, t('recycle.include_home'));
    out.push(h('fieldset', { class: 'section' }, h('legend', { class: 'label', text: t('recycle.shares') }),
      h('div', { class: 'options' },
        h('label', { class: 'option check' }, allRadio, t('recycle.all_shares')),
        h('div', { class: 'option' }, h('label', { class: 'check' }, selRadio, t('recycle.selected_shares')), this.ctl.sharePicker),
        h('label', { class: 'option check' }, bins, t('recycle.enable_bins')),
        h('div', { class: 'sub-options' }, this.ctl.homeLabel))));
    this.renderChips();

    // What to delete.
    const polName = nextId('policy');
    const pol = (v) => h('input', { type: 'radio', name: polName, value: v, checked: app.policy === v });
    this.ctl.policy = [pol('clean_all'), pol('time'), pol('size')];
    const ageDays = h('input', { type: 'number', min: '1', step: '1', value: app.time, 'aria-label': t('recycle.policy_time') });
    const sizeMb = h('input', { type: 'number', min: '1', step: '1', value: app.size, 'aria-label': t('recycle.policy_size') });
    const sort = h('select', { 'aria-label': t('recycle.sort') },
      h('option', { value: '0', text: t('recycle.sort_large') }), h('option', { value: '1', text: t('recycle.sort_old') }));
    sort.value = String(app.sortType);
    // Named apart from the schedule's "time" control, which shares this map.
    Object.assign(this.ctl, { ageDays, sizeMb, sort });
    out.push(h('fieldset', { class: 'section' }, h('legend', { class: 'label', text: t('recycle.policy') }),
      h('div', { class: 'options' },
        h('label', { class: 'option check' }, this.ctl.policy[0], t('recycle.policy_all')),
        h('div', { class: 'option' }, h('label', { class: 'check' }, this.ctl.policy[1], t('recycle.policy_time')), ageDays,
          h('span', { text: t('recycle.days') }), this.inlineError('app.time', ageDays)),
        h('div', { class: 'option' }, h('label', { class: 'check' }, this.ctl.policy[2], t('recycle.policy_size')), sizeMb,
          h('span', { text: t('recycle.mb') }),
          h('div', { class: 'sub-options' }, h('span', { text: t('recycle.sort') }), sort), this.inlineError('app.size', sizeMb)))));

    // What to keep.
    const kg = h('input', { type: 'checkbox', checked: app.keepGreater });
    const ks = h('input', { type: 'checkbox', checked: app.keepSmaller });
    const ke = h('input', { type: 'checkbox', checked: app.keepExt });
    const greater = h('input', { type: 'number', min: '1', step: '1', value: app.greater, 'aria-label': t('recycle.keep_greater') });
    const smaller = h('input', { type: 'number', min: '1', step: '1', value: app.smaller, 'aria-label': t('recycle.keep_smaller') });
    const exts = h('input', { type: 'text', class: 'grow', value: app.extensions, spellcheck: 'false', autocomplete: 'off', 'aria-label': t('recycle.keep_ext'), placeholder: t('recycle.ext_hint') });
    Object.assign(this.ctl, { kg, ks, ke, greater, smaller, exts });
    out.push(h('fieldset', { class: 'section' }, h('legend', { class: 'label', text: t('recycle.keep') }),
      h('div', { class: 'options' },
        h('div', { class: 'option' }, h('label', { class: 'check' }, kg, t('recycle.keep_greater')), greater, h('span', { text: t('recycle.mb') }), this.inlineError('app.greater', greater)),
        h('div', { class: 'option' }, h('label', { class: 'check' }, ks, t('recycle.keep_smaller')), smaller, h('span', { text: t('recycle.mb') }), this.inlineError('app.smaller', smaller)),
        h('div', { class: 'option' }, h('label', { class: 'check' }, ke, t('recycle.keep_ext')), exts, this.inlineError('app.extensions', exts)))));
    return out;
  }

  inlineError(key, control) {
    const err = h('div', { class: 'error sub-options', id: nextId('ierr'), hidden: true });
    this.fields.set(key, { control, err, hintId: null });
    return err;
  }

  renderChips() {
    const t = this.t;
    if (this.shares.length === 0) {
      this.ctl.chips.replaceChildren(h('span', { class: 'hint', text: t('recycle.no_shares') }));
      return;
    }
    this.ctl.chips.replaceChildren(...this.shares.map((name) => {
      const rm = h('button', { type: 'button', 'aria-label': t('recycle.share_remove', { name }) }, icon('x'));
      rm.addEventListener('click', () => {
        this.shares = this.shares.filter((s) => s !== name);
        this.renderChips();
        this.ctl.shareInput.focus();
      });
      return h('span', { class: 'chip', role: 'listitem' }, name, rm);
    }));
  }

  renderService(app) {
    const t = this.t;
    this.services = app.services.map((s) => ({ ...s }));
    const actName = nextId('svcact');
    const start = h('input', { type: 'radio', name: actName, value: 'start', checked: app.action === 'start' });
    const stop = h('input', { type: 'radio', name: actName, value: 'stop', checked: app.action !== 'start' });
    this.ctl.svcStart = start;
    const seg = h('div', { class: 'segmented', role: 'radiogroup', 'aria-label': t('service.action') },
      h('label', {}, start, t('service.start')), h('label', {}, stop, t('service.stop')));
    const out = [h('div', { class: 'field' }, h('span', { class: 'label', text: t('service.action') }), seg)];
    this.ctl.svcChecks = [];
    const firstCheck = [];
    const group = (type, title) => {
      const entries = this.services.filter((s) => s.type === type);
      if (entries.length === 0) return null;
      const list = h('div', { class: 'checklist' });
      const boxes = [];
      for (const s of entries) {
        const cb = h('input', { type: 'checkbox', checked: s.enable });
        cb.addEventListener('change', () => { s.enable = cb.checked; });
        boxes.push(cb);
        this.ctl.svcChecks.push(cb);
        list.append(h('label', { class: 'check', title: s.id }, cb, serviceLabel(s, t, this.getTexts()),
          type === 'package' && s.name !== s.id ? h('span', { class: 'pkg-tag', text: s.id }) : null));
      }
      firstCheck.push(boxes[0]);
      const setAll = (on) => () => {
        for (const s of entries) s.enable = on;
        boxes.forEach((b) => { b.checked = on; });
      };
      const legendId = nextId('svcg');
      return h('div', { role: 'group', 'aria-labelledby': legendId },
        h('div', { class: 'checklist-head' }, h('span', { id: legendId, text: title }),
          h('span', { class: 'links' },
            h('button', { type: 'button', class: 'link-btn', text: t('service.select_all'), onclick: setAll(true) }),
            h('button', { type: 'button', class: 'link-btn', text: t('service.select_none'), onclick: setAll(false) }))),
        list);
    };
    const pick = h('span', { class: 'label' });
    this.ctl.svcPickLabel = pick;
    const groups = [group('service', t('service.system')), group('package', t('service.packages'))].filter(Boolean);
    const err = this.groupError('app.services', firstCheck[0] ?? start);
    out.push(h('div', { class: 'field' }, pick,
      groups.length ? groups : h('p', { class: 'hint', text: t('service.none') }), err));
    return out;
  }

  // ---- reading and syncing -------------------------------------------------------

  readForm() {
    const c = this.ctl;
    const repeat = c.repeat.find((r) => r.checked)?.value ?? 'daily';
    const rep = parseRepeatValue(c.repeatSel.value);
    const form = {
      name: c.name.value,
      owner: c.owner.value,
      enable: c.enable.checked,
      schedule: {
        repeat,
        date: c.date.value,
        time: c.time.value,
        weekDays: c.days.filter((d) => d.checked).map((d) => Number(d.value)),
        repeatMode: rep.repeatMode,
        repeatEvery: rep.repeatEvery,
        lastHour: Number(c.last.value),
        ...this.scheduleSteps,
      },
    };
    switch (this.kind) {
      case 'script':
        form.app = { script: c.script.value };
        break;
      case 'beep':
        form.app = { duration: c.duration.value };
        break;
      case 'recycle': {
        // Text left in the share box counts as added.
        const pending = c.shareInput.value.split(',').map(cleanShareName).filter((n) => n !== null);
        form.app = {
          cleanAll: c.cleanAll.checked,
          shares: [...this.shares, ...pending.filter((n) => !this.shares.includes(n))],
          policy: c.policy.find((p) => p.checked)?.value ?? 'clean_all',
          time: c.ageDays.value,
          size: c.sizeMb.value,
          sortType: Number(c.sort.value),
          keepGreater: c.kg.checked,
          greater: c.greater.value,
          keepSmaller: c.ks.checked,
          smaller: c.smaller.value,
          keepExt: c.ke.checked,
          extensions: c.exts.value,
          enableBins: c.enableBins.checked,
          includeHome: c.includeHome.checked,
        };
        break;
      }
      case 'service':
        form.app = { action: c.svcStart.checked ? 'start' : 'stop', services: this.services };
        break;
    }
    return form;
  }

  // Shows and hides what depends on other choices.
  sync() {
    const t = this.t;
    const c = this.ctl;
    const f = this.readForm();
    const s = f.schedule;
    c.daysBox.hidden = s.repeat !== 'weekly';
    c.dateLabel.textContent = t(s.repeat === 'once' ? 'sched.date_once' : s.repeat === 'monthly' ? 'sched.date_monthly' : 'sched.date_start');
    c.last.disabled = s.repeatMode === 'none';
    c.pastNote.hidden = !isOncePast(s, this.now());
    if (c.scriptCount) {
      const n = utf8Length(c.script.value);
      c.scriptCount.textContent = t('script.count', { n, max: SCRIPT_MAX_BYTES });
      c.scriptCount.classList.toggle('over', n > SCRIPT_MAX_BYTES);
    }
    const day = monthlyShortMonthDay(s);
    c.monthNote.hidden = day === 0;
    if (day) c.monthNote.textContent = t('sched.short_month', { d: day });
    if (this.kind === 'recycle') {
      const a = f.app;
      c.sharePicker.hidden = a.cleanAll;
      c.homeLabel.hidden = !a.cleanAll || !a.enableBins;
      c.ageDays.disabled = a.policy !== 'time';
      c.sizeMb.disabled = a.policy !== 'size';
      c.sort.disabled = a.policy !== 'size';
      c.greater.disabled = !a.keepGreater;
      c.smaller.disabled = !a.keepSmaller;
      c.exts.disabled = !a.keepExt;
    }
    if (this.kind === 'service') c.svcPickLabel.textContent = t(f.app.action === 'start' ? 'service.pick_start' : 'service.pick_stop');
  }

  showFieldError(key, err) {
    const f = this.fields.get(key);
    if (!f) return false;
    const t = this.t;
    if (!err) {
      f.err.hidden = true;
      f.err.textContent = '';
      if (!f.group) f.control.removeAttribute('aria-invalid');
      if (f.hintId) f.control.setAttribute('aria-describedby', f.hintId);
      else if (!f.group) f.control.removeAttribute('aria-describedby');
      return true;
    }
    f.err.textContent = typeof err === 'string' ? t(err) : t(err.key, err.vars);
    f.err.hidden = false;
    if (!f.group) {
      f.control.setAttribute('aria-invalid', 'true');
      f.control.setAttribute('aria-describedby', [f.hintId, f.err.id].filter(Boolean).join(' '));
    }
    return true;
  }

  // A field that shows an error is checked again as it changes, so the error goes as
  // soon as the value is right.
  revalidate(target) {
    if (!target) return;
    const shown = [...this.fields].filter(([, f]) => !f.err.hidden);
    if (shown.length === 0) return;
    const { errors } = formToParams(this.readForm(), this.task, this.kind, this.isNew);
    for (const [key] of shown) if (!errors[key]) this.showFieldError(key, null);
    if ([...this.fields.values()].every((f) => f.err.hidden) && !this.errorBox.classList.contains('info')) this.setError('');
  }

  checkDuplicate() {
    const c = this.ctl;
    if (!c || !Array.isArray(this.names)) return;
    const name = c.name.value.trim();
    const dup = name !== '' && name !== this.originalName && this.names.includes(name);
    c.dupNote.hidden = !dup;
    c.dupNote.textContent = dup ? this.t('edit.duplicate') : '';
  }

  schedulePreview(delay = PREVIEW_DELAY_MS) {
    clearTimeout(this.previewTimer);
    this.checkDuplicate();
    if (this.noPreview) return;
    this.previewTimer = setTimeout(() => this.preview(), delay);
  }

  // The next start times as the appliance's store computes them for the schedule as it
  // stands in the form.
  async preview() {
    const c = this.ctl;
    if (!c) return;
    const session = this.session;
    const { params, errors } = formToParams(this.readForm(), this.task, this.kind, this.isNew);
    const t = this.t;
    if (Object.keys(errors).some((k) => k.startsWith('schedule.'))) {
      c.previewBox.hidden = true;
      return;
    }
    const seq = (this.previewSeq = (this.previewSeq ?? 0) + 1);
    let data;
    try {
      data = await this.client.call(RUNS_API, 1, 'preview', { schedule: params.schedule, count: 5 });
    } catch (err) {
      if (isMissingApi(err)) this.noPreview = true;
      if (session === this.session && seq === this.previewSeq) c.previewBox.hidden = true;
      return;
    }
    if (session !== this.session || seq !== this.previewSeq || this.ctl !== c) return;
    const next = Array.isArray(data?.next) ? data.next.filter((x) => typeof x === 'string') : [];
    c.preview.replaceChildren(...(next.length ? next.map((x) => h('li', { text: x })) : [h('li', { class: 'muted', text: t('sched.preview_none') })]));
    c.previewBox.hidden = false;
  }

  // ---- saving --------------------------------------------------------------------

  async save() {
    if (!this.task || !this.dialog.open || this.saveBtn.disabled) return;
    const t = this.t;
    for (const key of this.fields.keys()) this.showFieldError(key, null);
    this.setError('');
    const { params, errors } = formToParams(this.readForm(), this.task, this.kind, this.isNew);
    const keys = Object.keys(errors);
    if (keys.length) {
      let first = null;
      for (const k of keys) {
        if (this.showFieldError(k, errors[k]) && !first) first = this.fields.get(k).control;
      }
      this.setError(t('val.fix'));
      if (first) first.focus();
      return;
    }
    const session = this.session;
    this.saveBtn.disabled = true;
    this.saving = true;
    const label = this.saveBtn.textContent;
    this.saveBtn.textContent = t('dialog.saving');
    try {
      const data = await this.client.call(TS_API, TS_EDIT_VERSION, this.isNew ? 'create' : 'set', params);
      if (session !== this.session) return;
      this.saving = false;
      this.dialog.close('saved');
      this.toaster.show(t(this.isNew ? 'toast.created' : 'toast.saved', { name: params.name }));
      if (this.onSaved) this.onSaved(data?.id);
    } catch (err) {
      if (session !== this.session || this.suspended) return;
      if (err instanceof ApiError && err.code === ERR_NOT_LOGGED_IN) return;
      const where = saveErrorField(err, this.task);
      if (where && where.field && this.fields.has(where.field)) {
        this.showFieldError(where.field, { key: where.key, vars: { owner: params.owner ?? '' } });
        this.fields.get(where.field).control.focus();
        this.setError(t('val.fix'));
      } else if (where) {
        this.setError(t(where.key));
      } else {
        this.setError(errorText(err, t));
      }
    } finally {
      this.saving = false;
      this.saveBtn.textContent = label;
      this.saveBtn.disabled = false;
    }
  }
}
