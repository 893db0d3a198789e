// The Task Scheduler page: sign-in, the task grid and its operations.

import { ApiClient, ApiError, errorText, takeLoginToken, isMissingApi, ERR_NOT_LOGGED_IN, ERR_PERMISSION } from './api.js';
import { h, icon, applyTexts, openModal, Toaster } from './dom.js';
import { translator, pickLanguage, fetchTexts, fetchLanguages, DEFAULT_LANG } from './i18n.js';
import {
  toggleSort, setPageSize, setFilter, listParams, pageCount, clampPage, pageRange, hasFilter, matchesFilter,
  stateToQuery, stateFromQuery, rowCapabilities, rowReasons, bulkPlan, setEnableParams, taskListParams, rowKey,
  serviceActionText, PAGE_SIZES, STATES, isEventTask,
} from './grid.js';
import { EVENT_API, matchEventEntry, eventEnableParams, entryOwnerName } from './events.js';
import { serviceLabel, SERVICE_TEXT_KEYS } from './kinds.js';
import { formatTimestamp, describeRun } from './runstatus.js';
import { Editor } from './editor.js';
import { ResultView } from './result.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const RUNS_API = 'ORVA.Core.TaskRuns';
// Shared by the tabs of this browser: a sign-in in one tab is the session of all.
const CSRF_KEY = 'orva.csrf';
const LANG_KEY = 'orva.lang';
const FILTER_DELAY_MS = 250;

const $ = (sel) => document.querySelector(sel);

const app = {
  lang: DEFAULT_LANG,
  languages: [],
  t: translator(DEFAULT_LANG, null),
  texts: null,
  user: null,
  grid: stateFromQuery(location.search),
  items: [],
  total: 0,
  // Selected tasks by row key, with the item: a selection may span pages.
  selected: new Map(),
  lastRuns: new Map(),
  events: new Map(),
  noRuns: false,
  loadSeq: 0,
  busy: false,
};

function storage(kind) {
  try {
    return kind === 'local' ? localStorage : sessionStorage;
  } catch {
    return null;
  }
}
const sharedCsrf = () => storage('local')?.getItem(CSRF_KEY) ?? '';
function saveCsrf(token) {
  const st = storage('local');
  if (!st) return;
  if (token) st.setItem(CSRF_KEY, token);
  else st.removeItem(CSRF_KEY);
}

const client = new ApiClient({
  onSessionLost: () => sessionLost('login.expired'),
  onDenied: () => checkSession(),
  sharedCsrf,
});
const toaster = new Toaster($('#toasts'), app.t);
const getT = () => app.t;

const editor = new Editor({
  dialog: $('#edit-dialog'), client, getT, getTexts: () => app.texts, toaster, confirm: (o) => confirmDialog(o),
  getNames: () => allTasks().then((tasks) => tasks.map((x) => x.name)).catch(() => []),
  onSaved: () => loadList({ quiet: true }),
});
const results = new ResultView({
  dialog: $('#result-dialog'), client, getT, toaster,
  onRun: () => loadList({ quiet: true }),
  // The grid behind the dialog follows a start, end or stop the dialog sees first.
  onStatus: (item, { running, runId }) => {
    const known = app.lastRuns.get(item.id);
    if (known && (known.running !== running || (known.last_run?.run_id ?? null) !== runId)) loadList({ quiet: true });
  },
});

// ---- language ---------------------------------------------------------------------

async function setLanguage(lang) {
  const [texts, fallback] = await Promise.all([fetchTexts(lang), lang === DEFAULT_LANG ? null : fetchTexts(DEFAULT_LANG)]);
  app.lang = lang;
  app.texts = texts;
  app.t = translator(lang, texts, fallback);
  toaster.t = app.t;
  client.lang = lang;
  document.documentElement.lang = lang;
  document.title = app.t('app.title');
  applyTexts(document, app.t);
  $('#lang-select').value = lang;
  renderHeaders();
  renderPageSizes();
  renderFilterChoices();
}

function storedLanguage() {
  return storage('local')?.getItem(LANG_KEY) ?? '';
}

async function initLanguage() {
  app.languages = await fetchLanguages();
  const sel = $('#lang-select');
  sel.replaceChildren(...app.languages.map((l) => h('option', { value: l.code, text: l.label, lang: l.code })));
  sel.addEventListener('change', async () => {
    storage('local')?.setItem(LANG_KEY, sel.value);
    await setLanguage(sel.value);
    if (app.user) {
      renderUser();
      loadList();
    }
  });
  await setLanguage(pickLanguage([storedLanguage(), ...(navigator.languages ?? [navigator.language])], app.languages));
}

// ---- signing in -------------------------------------------------------------------

function showLogin(message = '') {
  $('#boot').hidden = true;
  $('#app-view').hidden = true;
  $('#login-view').hidden = false;
  const box = $('#login-error');
  box.textContent = message;
  box.hidden = message === '';
  $('#login-account').focus();
}

// Everything of the signed-in user's view goes when the user does.
function resetView() {
  app.user = null;
  app.items = [];
  app.total = 0;
  app.selected.clear();
  app.lastRuns.clear();
  app.grid = { ...app.grid, page: 0 };
  $('#grid-body').replaceChildren();
  $('#pager-total').textContent = '';
  $('#pager-range').textContent = '';
  $('#head-count').textContent = '';
  $('#selection-count').textContent = '';
  $('#select-banner').hidden = true;
  toaster.clear();
}

async function enterApp() {
  let who;
  try {
    who = await client.whoami();
  } catch (err) {
    client.csrf = '';
    saveCsrf('');
    showLogin(err instanceof ApiError && [ERR_NOT_LOGGED_IN, ERR_PERMISSION].includes(err.code) ? '' : errorText(err, app.t));
    return;
  }
  // The page manages everybody's tasks: only administrators get past the sign-in.
  if (!who || who.is_admin !== true) {
    try {
      await client.logout();
    } catch { /* signed out either way */ }
    saveCsrf('');
    resetView();
    showLogin(app.t('login.not_admin', { user: who?.user ?? '' }));
    return;
  }
  const first = app.user === null;
  app.user = who;
  if (!storedLanguage() && typeof who.lang === 'string') {
    const lang = pickLanguage([who.lang], app.languages, app.lang);
    if (lang !== app.lang) await setLanguage(lang);
  }
  $('#boot').hidden = true;
  $('#login-view').hidden = true;
  $('#app-view').hidden = false;
  renderUser();
  await loadList();
  if (first && editor.resume()) return;
  editor.discardSuspended();
}

function renderUser() {
  const u = app.user ?? {};
  const name = typeof u.user === 'string' ? u.user : '';
  $('#user-avatar').textContent = name.slice(0, 1);
  const text = $('#user-text');
  const [before, after = ''] = app.t('header.user', { user: '\u0000' }).split('\u0000');
  text.replaceChildren(before, h('strong', { text: name }), after);
  if (u.is_admin) text.append(` · ${app.t('header.admin')}`);
}

// The session is gone (expired, signed out elsewhere, or replaced by a sign-in of
// another account in another tab): back to the sign-in, with an open edit kept.
function sessionLost(key) {
  if ($('#login-view').hidden === false) return;
  client.csrf = '';
  const kept = editor.suspend();
  for (const d of document.querySelectorAll('dialog[open]')) d.close('session');
  const user = app.user;
  resetView();
  app.user = null;
  showLogin(app.t(kept ? 'login.expired_kept' : key));
  if (user?.user) $('#login-account').value = user.user;
}

// A refusal (105) may mean that the session changed under this tab: ask who we are.
let checking = null;
function checkSession() {
  if (checking || !app.user) return;
  checking = client.whoami()
    .then((who) => {
      if (!who || who.is_admin !== true || who.user !== app.user?.user) sessionLost('login.elsewhere');
    })
    .catch(() => sessionLost('login.elsewhere'))
    .finally(() => { checking = null; });
}

// Another tab signed in or out: follow it.
window.addEventListener('storage', (ev) => {
  if (ev.key !== CSRF_KEY || !app.user) return;
  if (!ev.newValue) {
    sessionLost('login.elsewhere');
    return;
  }
  client.csrf = ev.newValue;
  checkSession();
});

async function onLoginSubmit(ev) {
  ev.preventDefault();
  const account = $('#login-account').value.trim();
  const passwd = $('#login-password').value;
  const btn = $('#login-submit');
  if (account === '') {
    showLogin(app.t('val.required'));
    $('#login-account').setAttribute('aria-invalid', 'true');
    return;
  }
  $('#login-account').removeAttribute('aria-invalid');
  btn.disabled = true;
  btn.textContent = app.t('login.busy');
  try {
    await client.login({ account, passwd, lang: app.lang });
    saveCsrf(client.csrf);
    $('#login-password').value = '';
    await enterApp();
  } catch (err) {
    // The sign-in's own refusals (bad parameters, account or password) read as one.
    const msg = err instanceof ApiError && err.code >= 400 && err.code < 500 ? app.t('login.failed') : errorText(err, app.t);
    showLogin(msg);
    $('#login-password').select();
  } finally {
    btn.disabled = false;
    btn.textContent = app.t('login.submit');
  }
}

async function onLogout() {
  try {
    await client.logout();
  } catch { /* the session is dropped here either way */ }
  saveCsrf('');
  editor.discardSuspended();
  resetView();
  showLogin('');
}

async function boot() {
  await initLanguage();
  $('#boot').textContent = app.t('grid.loading');
  const { token, cleanUrl } = takeLoginToken(location.href);
  if (token) {
    // The token must not stay in the address bar or the history.
    history.replaceState(history.state, '', cleanUrl);
    try {
      await client.login({ token, lang: app.lang });
      saveCsrf(client.csrf);
      await enterApp();
    } catch (err) {
      showLogin(err instanceof ApiError && err.code > 0 ? app.t('login.token_failed') : errorText(err, app.t));
    }
    return;
  }
  const csrf = sharedCsrf();
  if (csrf) {
    client.csrf = csrf;
    await enterApp();
  } else {
    showLogin('');
  }
}

// ---- the grid ---------------------------------------------------------------------

const COLUMNS = [
  { sort: 'enable', label: 'col.enable' },
  { sort: 'name', label: 'col.name' },
  { sort: 'type', label: 'col.type' },
  { sort: 'owner', label: 'col.owner' },
  { sort: 'action', label: 'col.action' },
  { sort: 'next_trigger_time', label: 'col.next' },
];
const FILTER_TYPES = ['script', 'beep', 'recycle', 'service', 'event_script', 'report', 'backup', 'custom'];

function renderHeaders() {
  for (const col of COLUMNS) {
    const th = document.querySelector(`th[data-sort="${col.sort}"]`);
    const active = app.grid.sortBy === col.sort;
    th.setAttribute('aria-sort', active ? (app.grid.sortDir === 'asc' ? 'ascending' : 'descending') : 'none');
    let btn = th.querySelector('button');
    if (!btn) {
      btn = h('button', { type: 'button', class: 'sort' });
      btn.addEventListener('click', () => {
        updateGrid(toggleSort(app.grid, col.sort));
        renderHeaders();
      });
      th.append(btn);
    }
    const ind = icon('up');
    ind.classList.add('ind');
    btn.replaceChildren(app.t(col.label), ind);
    btn.title = app.t('grid.sort', { column: app.t(col.label) });
  }
}

function renderPageSizes() {
  const sel = $('#page-size');
  sel.replaceChildren(...PAGE_SIZES.map((n) => h('option', { value: String(n), text: String(n) })));
  sel.value = String(app.grid.pageSize);
}

function renderFilterChoices() {
  const t = app.t;
  const f = app.grid.filter;
  $('#filter-type').replaceChildren(h('option', { value: '', text: t('filter.all_types') }),
    ...FILTER_TYPES.map((x) => h('option', { value: x, text: t(`type.${x}`) })));
  $('#filter-state').replaceChildren(h('option', { value: '', text: t('filter.all_states') }),
    ...STATES.map((x) => h('option', { value: x, text: t(`filter.${x}`) })));
  $('#filter-q').value = f.q;
  $('#filter-type').value = f.type;
  $('#filter-owner').value = f.owner;
  $('#filter-state').value = f.state;
  $('#filter-clear').hidden = !hasFilter(app.grid);
}

function typeLabel(item) {
  if (item.type === 'custom' && typeof item.app_name === 'string' && item.app_name !== '') return item.app_name;
  const key = `type.${item.type}`;
  return app.t.has(key) ? app.t(key) : item.type;
}

function actionText(item) {
  if (item.type !== 'service') return item.action ?? '';
  return serviceActionText(item.action, (id) => (Object.hasOwn(SERVICE_TEXT_KEYS, id) ? serviceLabel({ type: 'service', id }, app.t, app.texts) : id));
}

// Keeps the grid's state in the address, so a reload shows the same.
function updateGrid(state, { load = true } = {}) {
  app.grid = state;
  const q = stateToQuery(state);
  history.replaceState(history.state, '', `${location.pathname}${q ? `?${q}` : ''}${location.hash}`);
  $('#filter-clear').hidden = !hasFilter(state);
  if (load) loadList();
}

// Every listed task, in the grid's order (for filters, "select all" and names).
async function allTasks() {
  const data = await client.call(TS_API, 2, 'list', listParams(app.grid, true));
  return Array.isArray(data?.tasks) ? data.tasks : [];
}

async function fetchPage() {
  if (!hasFilter(app.grid)) {
    let data = await client.call(TS_API, 2, 'list', listParams(app.grid));
    const clamped = clampPage(app.grid, data.total ?? 0);
    // The page may have emptied (deletions, or others' changes): show the last one with rows.
    if (clamped !== app.grid && (data.tasks ?? []).length === 0 && (data.total ?? 0) > 0) {
      app.grid = clamped;
      data = await client.call(TS_API, 2, 'list', listParams(app.grid));
    }
    return { tasks: Array.isArray(data.tasks) ? data.tasks : [], total: Number.isInteger(data.total) ? data.total : 0 };
  }
  const every = await allTasks();
  const all = every.filter((x) => matchesFilter(x, app.grid.filter));
  app.grid = clampPage(app.grid, all.length);
  const first = app.grid.page * app.grid.pageSize;
  // A selection outlives a change of filter; only tasks that are gone leave it.
  return { tasks: all.slice(first, first + app.grid.pageSize), total: all.length, all: every };
}

async function loadList({ quiet = false } = {}) {
  const seq = ++app.loadSeq;
  $('#loading-bar').hidden = false;
  $('#grid-wrap').setAttribute('aria-busy', 'true');
  if (!quiet && app.items.length === 0) showGridState(app.t('grid.loading'));
  try {
    const page = await fetchPage();
    if (seq !== app.loadSeq) return;
    app.items = page.tasks;
    app.total = page.total;
    // Selected rows follow their tasks' new state; those gone are dropped.
    for (const it of app.items) if (app.selected.has(rowKey(it))) app.selected.set(rowKey(it), it);
    if (page.all) {
      const keys = new Set(page.all.map(rowKey));
      for (const k of [...app.selected.keys()]) if (!keys.has(k)) app.selected.delete(k);
    }
    await Promise.all([loadLastRuns(seq), loadEvents(seq)]);
    if (seq !== app.loadSeq) return;
    renderGrid();
  } catch (err) {
    if (seq !== app.loadSeq) return;
    if (err instanceof ApiError && [ERR_NOT_LOGGED_IN, ERR_PERMISSION].includes(err.code)) return;
    if (app.items.length === 0) showGridState(errorText(err, app.t), true);
    else toaster.error(errorText(err, app.t));
  } finally {
    if (seq === app.loadSeq) {
      $('#loading-bar').hidden = true;
      $('#grid-wrap').removeAttribute('aria-busy');
    }
  }
}

// The last run of each task on the page (ORVA.Core.TaskRuns "summary").
async function loadLastRuns(seq) {
  if (app.noRuns) return;
  const ids = app.items.filter((x) => !isEventTask(x)).map((x) => x.id);
  if (ids.length === 0) return;
  try {
    const data = await client.call(RUNS_API, 1, 'summary', { ids });
    if (seq !== app.loadSeq) return;
    app.lastRuns.clear();
    for (const x of Array.isArray(data?.tasks) ? data.tasks : []) app.lastRuns.set(x.id, x);
  } catch (err) {
    if (isMissingApi(err)) app.noRuns = true;
    else if (!(err instanceof ApiError && [ERR_NOT_LOGGED_IN, ERR_PERMISSION].includes(err.code))) throw err;
  }
}

// The trigger event of the event tasks on the page.
async function loadEvents(seq) {
  if (!app.items.some(isEventTask)) return;
  try {
    const entries = await client.call(EVENT_API, 1, 'list', {});
    if (seq !== app.loadSeq) return;
    app.events.clear();
    for (const e of Array.isArray(entries) ? entries : []) app.events.set(`${entryOwnerName(e)}\u0000${e.task_name}`, e.event);
  } catch { /* the rows then show no event */ }
}

function showGridState(text, error = false) {
  $('#grid-body').replaceChildren();
  const box = $('#grid-state');
  box.replaceChildren(error ? h('div', { class: 'alert', role: 'alert', text }) : icon('calendar'), error ? '' : text);
  box.hidden = false;
}

function renderGrid() {
  const t = app.t;
  const body = $('#grid-body');
  // Rows are rebuilt; keep keyboard focus on the same control of the same task.
  const focused = document.activeElement?.closest?.('#grid-body [data-focus]')?.dataset.focus;
  body.replaceChildren(...app.items.map(renderRow));
  if (focused) {
    const again = [...body.querySelectorAll('[data-focus]')].find((el) => el.dataset.focus === focused);
    if (again && !again.disabled) again.focus();
  }
  if (app.items.length === 0) showGridState(t(hasFilter(app.grid) ? 'grid.no_match' : 'grid.empty'));
  else $('#grid-state').hidden = true;

  const pages = pageCount(app.total, app.grid.pageSize);
  const range = pageRange(app.grid, app.total, app.items.length);
  $('#pager-total').textContent = t('grid.total', { n: app.total });
  $('#head-count').textContent = app.total > 0 ? `(${app.total})` : '';
  $('#pager-range').textContent = app.total > 0
    ? `${t('grid.range', range)} · ${t('grid.page', { page: app.grid.page + 1, pages })}` : '';
  $('#page-first').disabled = app.grid.page === 0;
  $('#page-prev').disabled = app.grid.page === 0;
  $('#page-next').disabled = app.grid.page >= pages - 1;
  $('#page-last').disabled = app.grid.page >= pages - 1;
  renderSelection();
}

function lastRunCell(item) {
  const t = app.t;
  if (isEventTask(item)) return h('td', { class: 'col-last muted' }, '–');
  const s = app.lastRuns.get(item.id);
  if (!s) return h('td', { class: 'col-last muted' }, app.noRuns ? '' : '–');
  const parts = [];
  const lr = s.last_run;
  if (s.running || lr?.result === 'running') parts.push(h('span', { class: 'badge running', text: t('result.running_badge') }));
  if (lr && lr.result !== 'running') {
    parts.push(h('span', { class: `badge ${lr.result}`, text: t.has(`result.${lr.result}`) ? t(`result.${lr.result}`) : lr.result }));
  }
  if (lr?.start) parts.push(h('span', { class: 'when', text: formatTimestamp(lr.start).slice(0, 16) }));
  if (parts.length === 0) parts.push(h('span', { class: 'muted', text: t('grid.never') }));
  return h('td', { class: 'col-last', 'data-label': t('col.last') }, h('span', { class: 'last-run' }, parts));
}

function renderRow(item) {
  const t = app.t;
  const caps = rowCapabilities(item);
  const why = rowReasons(item);
  const key = rowKey(item);
  const selected = app.selected.has(key);
  const tr = h('tr', { class: selected ? 'selected' : '' });
  tr.dataset.key = key;

  const check = h('input', { type: 'checkbox', checked: selected, 'aria-label': t('col.select', { name: item.name }) });
  check.dataset.focus = `${key}|select`;
  check.addEventListener('change', () => {
    if (check.checked) app.selected.set(key, item);
    else app.selected.delete(key);
    tr.classList.toggle('selected', check.checked);
    renderSelection();
  });

  // The switch stays focusable while its change is saved (a disabled control drops the
  // keyboard focus); a second click meanwhile is ignored.
  const toggle = h('input', {
    type: 'checkbox', role: 'switch', class: 'switch', checked: item.enable === true,
    disabled: !caps.toggle, 'aria-label': t('row.toggle', { name: item.name }), title: why.toggle ? t(why.toggle) : null,
  });
  toggle.dataset.focus = `${key}|toggle`;
  toggle.addEventListener('click', (ev) => {
    if (toggle.getAttribute('aria-busy') === 'true') ev.preventDefault();
  });
  toggle.addEventListener('change', () => runBulk(toggle.checked ? 'enable' : 'disable', [item], { revert: toggle }));

  const tools = h('span', { class: 'tools' });
  const toolBtn = (name, label, aria, iconName, onClick, extra = '') => {
    const off = why[name];
    const b = h('button', {
      type: 'button', class: `btn sm ghost ${extra}`, 'aria-label': aria, disabled: Boolean(off), title: off ? t(off) : aria,
    }, icon(iconName), h('span', { class: 'tool-label', text: label }));
    b.dataset.focus = `${key}|${name}`;
    b.addEventListener('click', onClick);
    tools.append(b);
  };
  toolBtn('edit', t('row.edit'), t('row.edit_label', { name: item.name }), 'edit', () => editor.openEdit(item));
  toolBtn('run', t('row.run'), t('row.run_label', { name: item.name }), 'play', () => runBulk('run', [item], { openResult: true }));
  toolBtn('result', t('row.result'), t('row.result_label', { name: item.name }), 'result', () => results.open(item));
  toolBtn('clone', t('row.clone'), t('row.clone_label', { name: item.name }), 'copy', () => editor.openClone(item), 'icon-only');
  toolBtn('delete', t('row.delete'), t('row.delete_label', { name: item.name }), 'trash', () => runBulk('delete', [item]), 'icon-only danger');

  let next = item.next_trigger_time && item.next_trigger_time !== '-' ? item.next_trigger_time : '–';
  let nextClass = next === '–' ? ' muted' : '';
  if (isEventTask(item)) {
    const ev = app.events.get(`${item.owner}\u0000${item.name}`);
    if (ev) {
      next = t('row.event_hint', { event: t.has(`event.${ev}`) ? t(`event.${ev}`) : ev });
      nextClass = ' event';
    }
  }
  const action = actionText(item);
  tr.append(
    h('td', { class: 'col-check' }, check),
    h('td', { class: 'col-enable' }, toggle),
    h('td', { class: 'col-name' }, item.name),
    h('td', { class: 'col-type' }, h('span', { class: 'type-cell' }, h('span', { class: `kind-dot kind-${item.type}` }), typeLabel(item))),
    h('td', { class: 'col-owner', 'data-label': t('col.owner') }, item.owner || '–'),
    h('td', { class: 'col-action', title: action, 'data-label': t('col.action') }, h('span', { class: 'clamp', text: action })),
    h('td', { class: `col-next${nextClass}`, 'data-label': t('col.next') }, next),
    lastRunCell(item),
    h('td', { class: 'col-tools' }, tools),
  );
  return tr;
}

function selectedItems() {
  return [...app.selected.values()];
}

function renderSelection() {
  const t = app.t;
  const items = selectedItems();
  const onPage = app.items.filter((it) => app.selected.has(rowKey(it))).length;
  const all = $('#select-all');
  all.checked = onPage > 0 && onPage === app.items.length;
  all.indeterminate = onPage > 0 && onPage < app.items.length;
  all.disabled = app.items.length === 0;
  $('#selection-count').textContent = items.length ? t('toolbar.selected', { n: items.length }) : '';
  for (const btn of document.querySelectorAll('[data-bulk]')) {
    const plan = bulkPlan(items, btn.dataset.bulk);
    btn.disabled = app.busy || plan.tasks.length + plan.events.length === 0;
  }
  // All of this page chosen, and more pages: offer the whole list.
  const banner = $('#select-banner');
  if (all.checked && app.total > app.items.length && items.length < app.total) {
    const more = h('button', { type: 'button', class: 'link-btn', id: 'select-every', text: t('grid.select_every', { n: app.total }) });
    more.addEventListener('click', selectEvery);
    banner.replaceChildren(t('grid.selected_page', { n: onPage }), ' ', more);
    banner.hidden = false;
  } else if (items.length > onPage && items.length > 0) {
    const clear = h('button', { type: 'button', class: 'link-btn', text: t('grid.clear_selection') });
    clear.addEventListener('click', () => {
      app.selected.clear();
      renderGrid();
    });
    banner.replaceChildren(t('grid.selected_all', { n: items.length }), ' ', clear);
    banner.hidden = false;
  } else {
    banner.hidden = true;
  }
}

async function selectEvery() {
  try {
    const every = (await allTasks()).filter((x) => matchesFilter(x, app.grid.filter));
    for (const it of every) app.selected.set(rowKey(it), it);
    renderGrid();
  } catch (err) {
    if (!(err instanceof ApiError && err.code === ERR_NOT_LOGGED_IN)) toaster.error(errorText(err, app.t));
  }
}

// ---- operations -------------------------------------------------------------------

async function eventOperation(action, items) {
  const entries = await client.call(EVENT_API, 1, 'list', {});
  for (const item of items) {
    const m = matchEventEntry(item, entries);
    if (m.error) {
      throw new ApiError({ code: 0, msg: app.t(m.error === 'missing' ? 'err.event_missing' : 'err.event_ambiguous', { name: item.name }) });
    }
    if (action === 'delete') await client.call(EVENT_API, 1, 'delete', { id: m.entry.id });
    else await client.call(EVENT_API, 1, 'set', eventEnableParams(m.entry, action === 'enable'));
  }
}

const nameList = (items, max = 8) => {
  const shown = items.slice(0, max);
  return h('ul', { class: 'names' }, shown.map((it) => h('li', { text: it.name })), items.length > max ? h('li', { text: '…' }) : null);
};

// The confirmation dialog: resolves true for OK.
function confirmDialog({ title, body, ok, danger = true }) {
  const dialog = $('#confirm-dialog');
  $('#confirm-title').textContent = title;
  $('#confirm-body').replaceChildren(...(Array.isArray(body) ? body : [h('p', { text: body })]));
  $('#confirm-ok').textContent = ok;
  $('#confirm-ok').className = danger ? 'btn danger-solid' : 'btn primary';
  dialog.returnValue = '';
  return new Promise((resolve) => {
    openModal(dialog, () => resolve(dialog.returnValue === 'ok'));
    $('#confirm-cancel').focus();
  });
}

function confirmDelete(items, skipped) {
  const t = app.t;
  const parts = [h('p', { text: items.length === 1 ? t('confirm.delete_one', { name: items[0].name }) : t('confirm.delete_many', { n: items.length }) })];
  if (items.length > 1) parts.push(nameList(items));
  if (skipped.length > 0) parts.push(h('p', { class: 'hint', text: t('confirm.skipped', { n: skipped.length }) }), nameList(skipped, 5));
  return confirmDialog({ title: t('confirm.delete_title'), body: parts, ok: t('confirm.delete') });
}

const doneKeys = { enable: 'toast.enabled', disable: 'toast.disabled', run: 'toast.started', delete: 'toast.deleted' };

async function runBulk(action, items, { revert = null, openResult = false } = {}) {
  const t = app.t;
  const plan = bulkPlan(items, action);
  const targets = [...plan.tasks, ...plan.events];
  const names = (list) => list.map((x) => `“${x.name}”`).join(', ');
  if (targets.length === 0) {
    if (revert) revert.checked = !revert.checked;
    if (plan.skipped.length) toaster.error(t('toast.skipped', { n: plan.skipped.length, names: names(plan.skipped) }));
    return;
  }
  if (action === 'delete' && !(await confirmDelete(targets, plan.skipped))) return;

  app.busy = true;
  renderSelection();
  if (revert) revert.setAttribute('aria-busy', 'true');
  try {
    if (plan.tasks.length) {
      if (action === 'enable' || action === 'disable') {
        await client.call(TS_API, 2, 'set_enable', setEnableParams(plan.tasks, action === 'enable'));
      } else {
        await client.call(TS_API, 2, action, taskListParams(plan.tasks));
      }
    }
    if (plan.events.length) await eventOperation(action, plan.events);
    toaster.show(t(doneKeys[action], { n: targets.length, name: targets[0].name }));
    // Those left out are named, so nobody thinks they were done.
    if (plan.skipped.length) toaster.error(t('toast.skipped', { n: plan.skipped.length, names: names(plan.skipped) }));
    if (action === 'delete') for (const it of targets) app.selected.delete(rowKey(it));
    if (openResult && targets.length === 1 && !isEventTask(targets[0])) {
      const known = app.lastRuns.get(targets[0].id);
      results.open(targets[0], { startedAt: Date.now(), baseline: known ? describeRun(known.last_run).start : undefined });
    }
  } catch (err) {
    if (revert) revert.checked = !revert.checked;
    if (!(err instanceof ApiError && [ERR_NOT_LOGGED_IN].includes(err.code))) toaster.error(errorText(err, t));
  } finally {
    app.busy = false;
    if (revert) revert.removeAttribute('aria-busy');
    if (app.user) await loadList({ quiet: true });
  }
}

// ---- the create menu --------------------------------------------------------------

function initCreateMenu() {
  const btn = $('#create-btn');
  const menu = $('#create-menu');
  const items = [...menu.querySelectorAll('[role="menuitem"]')];
  const close = (focusButton) => {
    menu.hidden = true;
    btn.setAttribute('aria-expanded', 'false');
    if (focusButton) btn.focus();
  };
  const open = (index = 0) => {
    menu.hidden = false;
    btn.setAttribute('aria-expanded', 'true');
    items[(index + items.length) % items.length].focus();
  };
  btn.addEventListener('click', () => (menu.hidden ? open(0) : close(false)));
  btn.addEventListener('keydown', (ev) => {
    if (ev.key === 'ArrowDown') { ev.preventDefault(); open(0); }
    if (ev.key === 'ArrowUp') { ev.preventDefault(); open(-1); }
  });
  menu.addEventListener('keydown', (ev) => {
    const i = items.indexOf(document.activeElement);
    if (ev.key === 'ArrowDown') { ev.preventDefault(); items[(i + 1) % items.length].focus(); }
    else if (ev.key === 'ArrowUp') { ev.preventDefault(); items[(i - 1 + items.length) % items.length].focus(); }
    else if (ev.key === 'Home') { ev.preventDefault(); items[0].focus(); }
    else if (ev.key === 'End') { ev.preventDefault(); items[items.length - 1].focus(); }
    else if (ev.key === 'Escape' || ev.key === 'Tab') close(ev.key === 'Escape');
  });
  for (const it of items) {
    it.addEventListener('click', () => {
      close(true);
      editor.openCreate(it.dataset.kind);
    });
  }
  document.addEventListener('click', (ev) => {
    if (!menu.hidden && !ev.target.closest('.menu-wrap')) close(false);
  });
}

// ---- wiring -----------------------------------------------------------------------

function initGridControls() {
  $('#select-all').addEventListener('change', (ev) => {
    for (const it of app.items) {
      if (ev.target.checked) app.selected.set(rowKey(it), it);
      else app.selected.delete(rowKey(it));
    }
    renderGrid();
  });
  for (const btn of document.querySelectorAll('[data-bulk]')) {
    btn.addEventListener('click', () => runBulk(btn.dataset.bulk, selectedItems()));
  }
  $('#refresh').addEventListener('click', () => loadList());
  $('#page-size').addEventListener('change', (ev) => updateGrid(setPageSize(app.grid, Number(ev.target.value))));
  const go = (page) => {
    const pages = pageCount(app.total, app.grid.pageSize);
    updateGrid({ ...app.grid, page: Math.min(Math.max(0, page), pages - 1) });
  };
  $('#page-first').addEventListener('click', () => go(0));
  $('#page-prev').addEventListener('click', () => go(app.grid.page - 1));
  $('#page-next').addEventListener('click', () => go(app.grid.page + 1));
  $('#page-last').addEventListener('click', () => go(Infinity));

  let timer = null;
  const filterNow = () => {
    clearTimeout(timer);
    updateGrid(setFilter(app.grid, {
      q: $('#filter-q').value.trim(), type: $('#filter-type').value, owner: $('#filter-owner').value.trim(), state: $('#filter-state').value,
    }));
  };
  for (const id of ['#filter-q', '#filter-owner']) {
    $(id).addEventListener('input', () => {
      clearTimeout(timer);
      timer = setTimeout(filterNow, FILTER_DELAY_MS);
    });
  }
  for (const id of ['#filter-type', '#filter-state']) $(id).addEventListener('change', filterNow);
  $('#filter-clear').addEventListener('click', () => {
    updateGrid(setFilter(app.grid, { q: '', type: '', owner: '', state: '' }));
    renderFilterChoices();
    $('#filter-q').focus();
  });
}

// Next run times move on: refresh the grid now and then while the page is in view and
// nothing else is going on.
const AUTO_REFRESH_MS = 30000;
setInterval(() => {
  if (!app.user || app.busy || document.visibilityState !== 'visible') return;
  if (document.querySelector('dialog[open]')) return;
  loadList({ quiet: true });
}, AUTO_REFRESH_MS);

$('#login-form').addEventListener('submit', onLoginSubmit);
$('#logout').addEventListener('click', onLogout);
initCreateMenu();
initGridControls();
boot();
