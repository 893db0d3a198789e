// The result dialog: whether the task runs, its runs (ORVA.Core.TaskRuns "list",
// newest first) and the output of the chosen one, asked again every two seconds while
// the task runs. A server without ORVA.Core.TaskRuns gets the module's "view".

import { ApiError, errorText, isMissingApi } from './api.js';
import { h, icon, openModal, wireCloseButtons } from './dom.js';
import { describeRunStatus, describeRun, shouldPoll } from './runstatus.js';
import { taskListParams } from './grid.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const RUNS_API = 'ORVA.Core.TaskRuns';
const POLL_MS = 2000;
const KNOWN_RESULTS = ['success', 'failed', 'skipped', 'stopped', 'running'];

export class ResultView {
  constructor({ dialog, client, getT, toaster, onRun, onStatus }) {
    this.dialog = dialog;
    this.client = client;
    this.getT = getT;
    this.toaster = toaster;
    this.onRun = onRun;
    this.onStatus = onStatus;
    this.body = dialog.querySelector('#result-body');
    this.title = dialog.querySelector('#result-title');
    this.live = dialog.querySelector('#result-live');
    this.runBtn = dialog.querySelector('#result-run');
    this.stopBtn = dialog.querySelector('#result-stop');
    this.timer = null;
    this.session = 0;
    this.noRuns = false;
    wireCloseButtons(dialog);
    this.runBtn.addEventListener('click', () => this.runNow());
    this.stopBtn.addEventListener('click', () => this.stopRun());
  }

  get t() {
    return this.getT();
  }

  // `baseline`: the start of the task's newest run before `startedAt`, when known.
  open(item, { startedAt = null, baseline = undefined } = {}) {
    const t = this.t;
    openModal(this.dialog, () => this.stop());
    this.item = item;
    this.startedAt = startedAt;
    this.baseline = baseline;
    this.lastStart = undefined;
    this.chosen = null;
    this.session++;
    this.title.textContent = t('result.title', { name: item.name });
    this.body.replaceChildren(h('div', { class: 'grid-state', text: t('edit.loading') }));
    this.live.textContent = '';
    this.runBtn.hidden = item.can_run !== true;
    this.stopBtn.hidden = true;
    // Nothing is started before the status is known: a second start while the task
    // runs would only be skipped.
    this.runBtn.disabled = true;
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
    let state;
    try {
      state = this.noRuns ? await this.fromView() : await this.fromRuns();
    } catch (err) {
      if (!this.noRuns && isMissingApi(err)) {
        this.noRuns = true;
        return this.refresh();
      }
      if (session !== this.session) return;
      this.body.replaceChildren(h('div', { class: 'alert', role: 'alert', text: errorText(err, t) }));
      this.live.textContent = '';
      this.runBtn.disabled = false;
      return;
    }
    if (session !== this.session) return;
    this.render(state);
    if (this.onStatus) this.onStatus(this.item, { running: state.running, runId: state.runs[0]?.runId ?? null });
    const newest = state.runs[0] ?? null;
    const start = newest ? newest.start : '';
    const poll = shouldPoll({ running: state.running, last: newest }, this.startedAt, Date.now(), this.baseline);
    this.lastStart = start;
    this.live.textContent = poll ? t('result.refreshing') : '';
    this.runBtn.disabled = state.running;
    this.stopBtn.hidden = !state.running || this.item.can_run !== true || this.noRuns;
    this.stopBtn.disabled = false;
    if (poll) this.timer = setTimeout(() => this.refresh(), POLL_MS);
  }

  // {running, pid, runs: [described run], output: {run_id, text, truncated} | null}
  async fromRuns() {
    const data = await this.client.call(RUNS_API, 1, 'list', { id: this.item.id });
    const runs = (Array.isArray(data?.runs) ? data.runs : []).map(describeRun);
    const running = data?.running === true || runs.some((r) => r.result === 'running');
    let chosen = runs.find((r) => r.runId === this.chosen) ?? runs[0] ?? null;
    let output = null;
    if (chosen && chosen.runId !== null) {
      const full = await this.client.call(RUNS_API, 1, 'get', { id: this.item.id, run_id: chosen.runId });
      chosen = describeRun(full);
      output = { text: typeof full?.output === 'string' ? full.output : '', truncated: full?.truncated === true };
    }
    return { running, pid: Number.isInteger(data?.pid) ? data.pid : null, runs, chosen, output };
  }

  async fromView() {
    const desc = describeRunStatus(await this.client.call(TS_API, 1, 'view', { id: this.item.id }));
    const runs = desc.last ? [desc.last] : [];
    return { running: desc.running, pid: desc.pid, runs, chosen: desc.last, output: desc.last ? { text: desc.last.output, truncated: false } : null };
  }

  resultBadge(result) {
    const t = this.t;
    const known = KNOWN_RESULTS.includes(result);
    return h('span', { class: `badge ${known ? result : ''}`, text: known ? t(result === 'running' ? 'result.running_badge' : `result.${result}`) : result || '–' });
  }

  render(state) {
    const t = this.t;
    const facts = h('dl', { class: 'facts' });
    const fact = (label, value) => facts.append(h('dt', { text: label }), h('dd', {}, value));
    fact(t('result.status'), state.running
      ? h('span', { class: 'badge running', text: state.pid !== null ? t('result.running', { pid: state.pid }) : t('result.running_nopid') })
      : h('span', { class: 'badge', text: t('result.idle') }));

    const parts = [facts];
    const run = state.chosen;
    if (!run) {
      parts.push(h('p', { class: 'hint', text: t('result.never') }));
      this.body.replaceChildren(...parts);
      return;
    }
    if (run.result) fact(t('result.result'), this.resultBadge(run.result));
    if (run.trigger) {
      const key = `result.trigger.${run.trigger}`;
      fact(t('result.trigger'), t.has(key) ? t(key) : run.trigger);
    }
    if (run.start) fact(t('result.start'), run.start);
    if (run.end) fact(t('result.end'), run.end);
    if (run.duration) fact(t('result.duration'), run.duration);
    if (run.signal !== null) fact(t('result.exit'), t('result.signal', { signal: run.signal }));
    else if (run.exitCode !== null) fact(t('result.exit'), String(run.exitCode));

    const head = h('div', { class: 'section-title output-head' }, h('span', { text: t('result.output') }));
    parts.push(head);
    const out = state.output ?? { text: '', truncated: false };
    if (out.truncated) parts.push(h('p', { class: 'note', role: 'note', text: t('result.truncated') }));
    if (out.text === '') {
      parts.push(h('p', { class: 'output-empty', text: run.result === 'running' ? t('result.no_output_yet') : t('result.no_output') }));
    } else {
      const dl = h('a', { class: 'btn sm ghost', download: this.fileName(run), href: '#' }, icon('download'), h('span', { text: t('result.download') }));
      dl.addEventListener('click', () => {
        const url = URL.createObjectURL(new Blob([out.text], { type: 'text/plain;charset=utf-8' }));
        dl.href = url;
        setTimeout(() => URL.revokeObjectURL(url), 10000);
      });
      head.append(dl);
      // Keep the reader's scroll position unless they were at the bottom.
      const old = this.body.querySelector('pre.output');
      const atEnd = !old || old.scrollTop + old.clientHeight >= old.scrollHeight - 4;
      const keep = old ? old.scrollTop : 0;
      const pre = h('pre', { class: 'output', tabindex: '0', 'aria-label': t('result.output'), text: out.text });
      parts.push(pre);
      this.body.replaceChildren(...parts, this.historyTable(state));
      pre.scrollTop = atEnd ? pre.scrollHeight : keep;
      return;
    }
    this.body.replaceChildren(...parts, this.historyTable(state));
  }

  fileName(run) {
    const stamp = (run.start || 'run').replace(/[^0-9]/g, '').slice(0, 14);
    const name = String(this.item.name).replace(/[^\p{L}\p{N}._-]+/gu, '_').slice(0, 60);
    return `${name}-${stamp}.log`;
  }

  historyTable(state) {
    const t = this.t;
    if (this.noRuns || state.runs.length < 1) return '';
    const rows = state.runs.map((r) => {
      const current = state.chosen && r.runId === state.chosen.runId;
      const open = h('button', { type: 'button', class: 'link-btn', text: r.start || '–', 'aria-current': current ? 'true' : null,
        'aria-label': t('result.open_run', { start: r.start || '–' }) });
      open.addEventListener('click', () => {
        this.chosen = r.runId;
        this.refresh();
      });
      return h('tr', { class: current ? 'current' : '' },
        h('td', {}, open), h('td', {}, this.resultBadge(r.result)),
        h('td', { text: t.has(`result.trigger.${r.trigger}`) ? t(`result.trigger.${r.trigger}`) : r.trigger }),
        h('td', { class: 'num', text: r.duration }));
    });
    return h('div', { class: 'history' },
      h('div', { class: 'section-title', text: t('result.history', { n: state.runs.length }) }),
      h('table', { class: 'runs' },
        h('thead', {}, h('tr', {}, ...['result.start', 'result.result', 'result.trigger', 'result.duration'].map((k) => h('th', { scope: 'col', text: t(k) })))),
        h('tbody', {}, rows)));
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
      this.chosen = null;
      if (this.onRun) this.onRun();
      this.refresh();
    } catch (err) {
      if (!(err instanceof ApiError && err.code === 106)) this.toaster.error(errorText(err, t));
      this.runBtn.disabled = false;
    }
  }

  async stopRun() {
    const t = this.t;
    this.stopBtn.disabled = true;
    try {
      await this.client.call(RUNS_API, 1, 'stop', { id: this.item.id });
      this.toaster.show(t('toast.stopping', { name: this.item.name }));
      this.refresh();
    } catch (err) {
      if (!(err instanceof ApiError && err.code === 106)) this.toaster.error(errorText(err, t));
      this.stopBtn.disabled = false;
    }
  }
}
