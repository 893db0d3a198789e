// The "View result" dialog: the task's run status, asked again every two seconds
// while the task runs.

import { errorText } from './api.js';
import { h, openModal, wireCloseButtons } from './dom.js';
import { describeRunStatus, shouldPoll } from './runstatus.js';
import { taskListParams } from './grid.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const POLL_MS = 2000;

export class ResultView {
  constructor({ dialog, client, getT, toaster, onRun }) {
    this.dialog = dialog;
    this.client = client;
    this.getT = getT;
    this.toaster = toaster;
    this.onRun = onRun;
    this.body = dialog.querySelector('#result-body');
    this.title = dialog.querySelector('#result-title');
    this.live = dialog.querySelector('#result-live');
    this.runBtn = dialog.querySelector('#result-run');
    this.timer = null;
    this.session = 0;
    wireCloseButtons(dialog);
    this.runBtn.addEventListener('click', () => this.runNow());
  }

  get t() {
    return this.getT();
  }

  open(item, { startedAt = null } = {}) {
    const t = this.t;
    openModal(this.dialog, () => this.stop());
    this.item = item;
    this.startedAt = startedAt;
    this.baseline = undefined;
    this.lastStart = undefined;
    this.session++;
    this.title.textContent = t('result.title', { name: item.name });
    this.body.replaceChildren(h('div', { class: 'grid-state', text: t('edit.loading') }));
    this.live.textContent = '';
    this.runBtn.hidden = item.can_run !== true;
    this.runBtn.disabled = false;
    this.lastOutput = null;
    this.refresh();
  }

  stop() {
    this.session++;
    clearTimeout(this.timer);
    this.timer = null;
  }

  async refresh() {
    const session = this.session;
    const t = this.t;
    clearTimeout(this.timer);
    let status;
    try {
      status = await this.client.call(TS_API, 1, 'view', { id: this.item.id });
    } catch (err) {
      if (session !== this.session) return;
      this.body.replaceChildren(h('div', { class: 'alert', role: 'alert', text: errorText(err, t) }));
      this.live.textContent = '';
      return;
    }
    if (session !== this.session) return;
    const desc = describeRunStatus(status);
    this.render(desc);
    this.lastStart = desc.last ? desc.last.start : '';
    const poll = shouldPoll(desc, this.startedAt, Date.now(), this.baseline);
    this.live.textContent = poll ? t('result.refreshing') : '';
    this.runBtn.disabled = desc.running;
    if (poll) this.timer = setTimeout(() => this.refresh(), POLL_MS);
  }

  render(desc) {
    const t = this.t;
    const facts = h('dl', { class: 'facts' });
    const fact = (label, value) => facts.append(h('dt', { text: label }), h('dd', {}, value));
    fact(t('result.status'), desc.running
      ? h('span', { class: 'badge running', text: desc.pid !== null ? t('result.running', { pid: desc.pid }) : t('result.running_nopid') })
      : h('span', { class: 'badge', text: t('result.idle') }));

    const parts = [facts];
    const last = desc.last;
    if (!last) {
      parts.push(h('p', { class: 'hint', text: t('result.never') }));
    } else {
      if (last.result) {
        const known = ['success', 'failed', 'skipped'].includes(last.result);
        fact(t('result.result'), h('span', { class: `badge ${known ? last.result : ''}`, text: known ? t(`result.${last.result}`) : last.result }));
      }
      if (last.trigger) {
        const key = `result.trigger.${last.trigger}`;
        const text = t(key);
        fact(t('result.trigger'), text === key ? last.trigger : text);
      }
      if (last.start) fact(t('result.start'), last.start);
      if (last.end) fact(t('result.end'), last.end);
      if (last.duration) fact(t('result.duration'), last.duration);
      if (last.signal !== null) fact(t('result.exit'), t('result.signal', { signal: last.signal }));
      else if (last.exitCode !== null) fact(t('result.exit'), String(last.exitCode));

      parts.push(h('div', { class: 'section-title', text: t('result.output') }));
      if (last.output === '') parts.push(h('p', { class: 'output-empty', text: t('result.no_output') }));
      else {
        // Keep the reader's scroll position unless they were at the bottom.
        const old = this.body.querySelector('pre.output');
        const atEnd = !old || old.scrollTop + old.clientHeight >= old.scrollHeight - 4;
        const pre = h('pre', { class: 'output', tabindex: '0', 'aria-label': t('result.output'), text: last.output });
        parts.push(pre);
        this.pendingScroll = atEnd ? 'end' : old.scrollTop;
      }
    }
    this.body.replaceChildren(...parts);
    const pre = this.body.querySelector('pre.output');
    if (pre) pre.scrollTop = this.pendingScroll === 'end' ? pre.scrollHeight : this.pendingScroll;
  }

  async runNow() {
    const t = this.t;
    const item = this.item;
    this.runBtn.disabled = true;
    try {
      await this.client.call(TS_API, 2, 'run', taskListParams([item]));
      this.toaster.show(t('toast.started', { n: 1, name: item.name }));
      this.startedAt = Date.now();
      this.baseline = this.lastStart;
      if (this.onRun) this.onRun();
      this.refresh();
    } catch (err) {
      this.toaster.error(errorText(err, t));
      this.runBtn.disabled = false;
    }
  }
}
