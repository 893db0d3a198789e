// The create/edit dialog: "get" fills the form, "set" or "create" saves it.

import { errorText } from './api.js';
import { h, icon, nextId, openModal, wireCloseButtons } from './dom.js';
import { taskToForm, formToParams, isEditableKind, parseExtensions, cleanShareName, serviceLabel, BEEP_MIN, BEEP_MAX } from './kinds.js';
import { REPEATS, WEEK_ORDER, formatDate, repeatChoices, repeatValue, parseRepeatValue, isOncePast, monthlyShortMonthDay } from './schedule.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const TS_EDIT_VERSION = 3;

export class Editor {
  constructor({ dialog, client, getT, getTexts, toaster, onSaved }) {
    this.getTexts = getTexts ?? (() => null);
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
    wireCloseButtons(dialog);
    const resync = () => { if (this.task && this.ctl) this.sync(); };
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

  async open({ kind, item }) {
    const t = this.t;
    openModal(this.dialog, () => { this.session++; });
    const session = ++this.session;
    this.isNew = item === null;
    this.kind = kind;
    this.title.textContent = this.isNew ? t('edit.title_new', { kind: t(`create.${kind}`) }) : t('edit.title', { name: item.name });
    this.body.replaceChildren(h('div', { class: 'grid-state', text: t('edit.loading') }));
    this.setError('');
    this.saveBtn.textContent = this.isNew ? t('dialog.create') : t('dialog.save');
    this.saveBtn.disabled = true;
    this.task = null;
    this.ctl = null;

    const params = this.isNew ? { id: -1, type: kind } : { id: item.id };
    if (!this.isNew && typeof item.real_owner === 'string' && item.real_owner !== '') params.real_owner = item.real_owner;
    let task;
    try {
      task = await this.client.call(TS_API, TS_EDIT_VERSION, 'get', params);
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
    this.render(formatDate(new Date()));
    this.saveBtn.disabled = false;
    const first = this.body.querySelector('input:not(:disabled), textarea, select');
    if (first) first.focus();
  }

  setError(msg) {
    this.errorBox.textContent = msg;
    this.errorBox.hidden = msg === '';
  }

  // ---- building the form ---------------------------------------------------------

  render(today) {
    const t = this.t;
    const task = this.task;
    const form = taskToForm(task, this.kind, today);
    this.fields = new Map();
    this.ctl = {};

    const general = h('fieldset', { class: 'section' }, h('legend', { text: t('edit.general') }));
    const name = h('input', { type: 'text', value: form.name, maxlength: '255', autocomplete: 'off', disabled: !this.isNew && task.can_edit_name === false });
    this.ctl.name = name;
    const owner = h('input', { type: 'text', value: form.owner, autocomplete: 'off', spellcheck: 'false', disabled: task.can_edit_owner !== true });
    this.ctl.owner = owner;
    general.append(h('div', { class: 'row' },
      this.field('name', t('edit.name'), name),
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

    const date = h('input', { type: 'date', value: s.date, required: true });
    const time = h('input', { type: 'time', value: s.time, required: true, step: '60' });
    this.ctl.date = date;
    this.ctl.time = time;
    const dateField = this.field('schedule.date', t('sched.date_start'), date);
    this.ctl.dateLabel = dateField.querySelector('label');
    box.append(h('div', { class: 'row' }, dateField, this.field('schedule.time', t('sched.time'), time)));

    const days = h('div', { class: 'days' });
    this.ctl.days = WEEK_ORDER.map((d) => {
      const input = h('input', { type: 'checkbox', value: String(d), checked: s.weekDays.includes(d) });
      days.append(h('label', { title: t(`day.${d}`) }, input, h('span', { 'aria-hidden': 'true', text: t(`dayshort.${d}`) }),
        h('span', { class: 'visually-hidden', text: t(`day.${d}`) })));
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
    box.append(this.ctl.pastNote, this.ctl.monthNote);
    this.scheduleSteps = { minuteSteps: s.minuteSteps, hourSteps: s.hourSteps };
    return box;
  }

  renderScript(app) {
    const t = this.t;
    const area = h('textarea', { rows: '8', spellcheck: 'false', autocapitalize: 'none', wrap: 'off' });
    area.value = app.script;
    this.ctl.script = area;
    return [this.field('app.script', t('script.label'), area, t('script.hint'))];
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
    const time = h('input', { type: 'number', min: '1', step: '1', value: app.time, 'aria-label': t('recycle.policy_time') });
    const size = h('input', { type: 'number', min: '1', step: '1', value: app.size, 'aria-label': t('recycle.policy_size') });
    const sort = h('select', { 'aria-label': t('recycle.sort') },
      h('option', { value: '0', text: t('recycle.sort_large') }), h('option', { value: '1', text: t('recycle.sort_old') }));
    sort.value = String(app.sortType);
    Object.assign(this.ctl, { time, size, sort });
    out.push(h('fieldset', { class: 'section' }, h('legend', { class: 'label', text: t('recycle.policy') }),
      h('div', { class: 'options' },
        h('label', { class: 'option check' }, this.ctl.policy[0], t('recycle.policy_all')),
        h('div', { class: 'option' }, h('label', { class: 'check' }, this.ctl.policy[1], t('recycle.policy_time')), time,
          h('span', { text: t('recycle.days') }), this.inlineError('app.time', time)),
        h('div', { class: 'option' }, h('label', { class: 'check' }, this.ctl.policy[2], t('recycle.policy_size')), size,
          h('span', { text: t('recycle.mb') }),
          h('div', { class: 'sub-options' }, h('span', { text: t('recycle.sort') }), sort), this.inlineError('app.size', size)))));

    // What to keep.
    const kg = h('input', { type: 'checkbox', checked: app.keepGreater });
    const ks = h('input', { type: 'checkbox', checked: app.keepSmaller });
    const ke = h('input', { type: 'checkbox', checked: app.keepExt });
    const greater = h('input', { type: 'number', min: '1', step: '1', value: app.greater, 'aria-label': t('recycle.keep_greater') });
    const smaller = h('input', { type: 'number', min: '1', step: '1', value: app.smaller, 'aria-label': t('recycle.keep_smaller') });
    const exts = h('input', { type: 'text', value: app.extensions, spellcheck: 'false', autocomplete: 'off', 'aria-label': t('recycle.keep_ext'), placeholder: t('recycle.ext_hint') });
    exts.style.flex = '1';
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
          time: c.time.value,
          size: c.size.value,
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
    c.pastNote.hidden = !isOncePast(s, new Date());
    const day = monthlyShortMonthDay(s);
    c.monthNote.hidden = day === 0;
    if (day) c.monthNote.textContent = t('sched.short_month', { d: day });
    if (this.kind === 'recycle') {
      const a = f.app;
      c.sharePicker.hidden = a.cleanAll;
      c.homeLabel.hidden = !a.cleanAll || !a.enableBins;
      c.time.disabled = a.policy !== 'time';
      c.size.disabled = a.policy !== 'size';
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
    const label = this.saveBtn.textContent;
    this.saveBtn.textContent = t('dialog.saving');
    try {
      const data = await this.client.call(TS_API, TS_EDIT_VERSION, this.isNew ? 'create' : 'set', params);
      if (session !== this.session) return;
      this.dialog.close('saved');
      this.toaster.show(t(this.isNew ? 'toast.created' : 'toast.saved', { name: params.name }));
      if (this.onSaved) this.onSaved(data?.id);
    } catch (err) {
      if (session !== this.session) return;
      this.setError(errorText(err, t));
    } finally {
      this.saveBtn.textContent = label;
      this.saveBtn.disabled = false;
    }
  }
}
