// The Task Scheduler page: sign-in, the task grid and its operations.

import { ApiClient, ApiError, errorText, takeLoginToken, ERR_NOT_LOGGED_IN } from './api.js';
import { h, icon, applyTexts, openModal, Toaster } from './dom.js';
import { translator, pickLanguage, languages } from './i18n.js';
import {
  initialState, toggleSort, setPageSize, listParams, pageCount, clampPage, pageRange,
  rowCapabilities, bulkPlan, setEnableParams, taskListParams, rowKey, PAGE_SIZES, isEventTask,
} from './grid.js';
import { EVENT_API, matchEventEntry, eventEnableParams } from './events.js';
import { Editor } from './editor.js';
import { ResultView } from './result.js';

const TS_API = 'ORVA.Core.TaskScheduler';
const CSRF_KEY = 'orva.csrf';
const LANG_KEY = 'orva.lang';

const $ = (sel) => document.querySelector(sel);

const app = {
  lang: 'en',
  t: translator('en'),
  user: null,
  grid: initialState(),
  items: [],
  total: 0,
  selected: new Set(),
  loadSeq: 0,
  busy: false,
  systemTexts: null,
};

const client = new ApiClient({ onSessionLost: () => sessionLost() });
const toaster = new Toaster($('#toasts'), app.t);
const getT = () => app.t;

const editor = new Editor({
  dialog: $('#edit-dialog'), client, getT, getTexts: () => app.systemTexts, toaster,
  onSaved: () => loadList(),
});
const results = new ResultView({
  dialog: $('#result-dialog'), client, getT, toaster,
  onRun: () => loadList({ quiet: true }),
});

// ---- language ---------------------------------------------------------------------

// The appliance's own texts of the language (names of the built-in services).
async function loadSystemTexts(lang) {
  try {
    const res = await fetch(`texts/${encodeURIComponent(lang)}/strings.json`, { cache: 'no-cache' });
    const texts = res.ok ? await res.json() : null;
    if (app.lang === lang) app.systemTexts = texts && typeof texts === 'object' ? texts : null;
  } catch {
    if (app.lang === lang) app.systemTexts = null;
  }
}

function setLanguage(lang) {
  app.lang = lang;
  app.systemTexts = null;
  loadSystemTexts(lang);
  app.t = translator(lang);
  toaster.t = app.t;
  client.lang = lang;
  document.documentElement.lang = lang;
  document.title = app.t('app.title');
  applyTexts(document, app.t);
  $('#lang-select').value = lang;
  renderHeaders();
  renderPageSizes();
}

function storedLanguage() {
  try {
    return localStorage.getItem(LANG_KEY) ?? '';
  } catch {
    return '';
  }
}

function initLanguage() {
  const sel = $('#lang-select');
  sel.replaceChildren(...languages.map((l) => h('option', { value: l.code, text: l.label })));
  sel.addEventListener('change', () => {
    try {
      localStorage.setItem(LANG_KEY, sel.value);
    } catch { /* private mode: the choice lasts for this page only */ }
    setLanguage(sel.value);
    if (app.user) {
      renderUser();
      loadList();
    }
  });
  setLanguage(pickLanguage([storedLanguage(), ...(navigator.languages ?? [navigator.language])]));
}

// ---- signing in -------------------------------------------------------------------

function saveCsrf(token) {
  try {
    if (token) sessionStorage.setItem(CSRF_KEY, token);
    else sessionStorage.removeItem(CSRF_KEY);
  } catch { /* not kept across reloads then */ }
}

function showLogin(message = '') {
  $('#boot').hidden = true;
  $('#app-view').hidden = true;
  $('#login-view').hidden = false;
  const box = $('#login-error');
  box.textContent = message;
  box.hidden = message === '';
  $('#login-account').focus();
}

async function enterApp() {
  let who;
  try {
    who = await client.whoami();
  } catch (err) {
    client.csrf = '';
    saveCsrf('');
    showLogin(err instanceof ApiError && err.code === ERR_NOT_LOGGED_IN ? '' : errorText(err, app.t));
    return;
  }
  app.user = who ?? {};
  if (!storedLanguage() && typeof app.user.lang === 'string') {
    const lang = pickLanguage([app.user.lang], app.lang);
    if (lang !== app.lang) setLanguage(lang);
  }
  $('#boot').hidden = true;
  $('#login-view').hidden = true;
  $('#app-view').hidden = false;
  renderUser();
  await loadList();
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

function sessionLost() {
  if ($('#login-view').hidden === false) return;
  client.csrf = '';
  saveCsrf('');
  app.user = null;
  for (const d of document.querySelectorAll('dialog[open]')) d.close('session');
  toaster.clear();
  showLogin(app.t('login.expired'));
}

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
    const msg = err instanceof ApiError && err.code > 0 && !err.msg ? app.t('login.failed') : errorText(err, app.t);
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
  app.user = null;
  app.items = [];
  app.selected.clear();
  toaster.clear();
  showLogin('');
}

async function boot() {
  initLanguage();
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
      showLogin(err instanceof ApiError && err.code > 0 && !err.msg ? app.t('login.token_failed') : errorText(err, app.t));
    }
    return;
  }
  let csrf = '';
  try {
    csrf = sessionStorage.getItem(CSRF_KEY) ?? '';
  } catch { /* no storage: sign in again */ }
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

function renderHeaders() {
  for (const col of COLUMNS) {
    const th = document.querySelector(`th[data-sort="${col.sort}"]`);
    const active = app.grid.sortBy === col.sort;
    th.setAttribute('aria-sort', active ? (app.grid.sortDir === 'asc' ? 'ascending' : 'descending') : 'none');
    let btn = th.querySelector('button');
    if (!btn) {
      btn = h('button', { type: 'button', class: 'sort' });
      btn.addEventListener('click', () => {
        app.grid = toggleSort(app.grid, col.sort);
        renderHeaders();
        loadList();
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

function typeLabel(item) {
  if (item.type === 'custom' && typeof item.app_name === 'string' && item.app_name !== '') return item.app_name;
  const key = `type.${item.type}`;
  const text = app.t(key);
  return text === key ? item.type : text;
}

async function loadList({ quiet = false } = {}) {
  const seq = ++app.loadSeq;
  $('#loading-bar').hidden = false;
  $('#grid-wrap').setAttribute('aria-busy', 'true');
  if (!quiet && app.items.length === 0) showGridState(app.t('grid.loading'));
  try {
    let data = await client.call(TS_API, 2, 'list', listParams(app.grid));
    if (seq !== app.loadSeq) return;
    // The page may have emptied (deletions, or others' changes): show the last one with rows.
    const clamped = clampPage(app.grid, data.total ?? 0);
    if (clamped !== app.grid && (data.tasks ?? []).length === 0 && (data.total ?? 0) > 0) {
      app.grid = clamped;
      data = await client.call(TS_API, 2, 'list', listParams(app.grid));
      if (seq !== app.loadSeq) return;
    }
    app.items = Array.isArray(data.tasks) ? data.tasks : [];
    app.total = Number.isInteger(data.total) ? data.total : app.items.length;
    const keys = new Set(app.items.map(rowKey));
    for (const k of [...app.selected]) if (!keys.has(k)) app.selected.delete(k);
    renderGrid();
  } catch (err) {
    if (seq !== app.loadSeq) return;
    if (err instanceof ApiError && err.code === ERR_NOT_LOGGED_IN) return;
    if (app.items.length === 0) showGridState(errorText(err, app.t), true);
    else toaster.error(errorText(err, app.t));
  } finally {
    if (seq === app.loadSeq) {
      $('#loading-bar').hidden = true;
      $('#grid-wrap').removeAttribute('aria-busy');
    }
  }
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
  if (app.items.length === 0) showGridState(t('grid.empty'));
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

function renderRow(item) {
  const t = app.t;
  const caps = rowCapabilities(item);
  const key = rowKey(item);
  const selected = app.selected.has(key);
  const tr = h('tr', { class: selected ? 'selected' : '' });
  tr.dataset.key = key;

  const check = h('input', { type: 'checkbox', checked: selected, 'aria-label': t('col.select', { name: item.name }) });
  check.dataset.focus = `${key}|select`;
  check.addEventListener('change', () => {
    if (check.checked) app.selected.add(key);
    else app.selected.delete(key);
    tr.classList.toggle('selected', check.checked);
    renderSelection();
  });

  const toggle = h('input', {
    type: 'checkbox', role: 'switch', class: 'switch', checked: item.enable === true,
    disabled: !caps.toggle, 'aria-label': t('row.toggle', { name: item.name }),
  });
  toggle.dataset.focus = `${key}|toggle`;
  toggle.addEventListener('change', () => runBulk(toggle.checked ? 'enable' : 'disable', [item], { revert: toggle }));

  const tools = h('span', { class: 'tools' });
  const toolBtn = (label, aria, iconName, enabled, onClick, title) => {
    const b = h('button', { type: 'button', class: 'btn sm ghost', 'aria-label': aria, disabled: !enabled, title: title ?? aria },
      icon(iconName), h('span', { text: label }));
    b.dataset.focus = `${key}|${iconName}`;
    b.addEventListener('click', onClick);
    tools.append(b);
  };
  const notEditable = !caps.edit && item.can_edit === true ? t('row.not_editable') : undefined;
  toolBtn(t('row.edit'), t('row.edit_label', { name: item.name }), 'edit', caps.edit, () => editor.openEdit(item), notEditable);
  toolBtn(t('row.run'), t('row.run_label', { name: item.name }), 'play', caps.run, () => runBulk('run', [item], { openResult: true }));
  toolBtn(t('row.result'), t('row.result_label', { name: item.name }), 'result', caps.result, () => results.open(item));

  const next = item.next_trigger_time && item.next_trigger_time !== '-' ? item.next_trigger_time : '–';
  tr.append(
    h('td', { class: 'col-check' }, check),
    h('td', { class: 'col-enable' }, toggle),
    h('td', { class: 'col-name' }, item.name),
    h('td', { class: 'col-type' }, h('span', { class: 'type-cell' }, h('span', { class: `kind-dot kind-${item.type}` }), typeLabel(item))),
    h('td', { class: 'col-owner' }, item.owner || '–'),
    h('td', { class: 'col-action', title: item.action ?? '' }, h('span', { class: 'clamp', text: item.action ?? '' })),
    h('td', { class: `col-next${next === '–' ? ' muted' : ''}` }, next),
    h('td', { class: 'col-tools' }, tools),
  );
  return tr;
}

function selectedItems() {
  return app.items.filter((it) => app.selected.has(rowKey(it)));
}

function renderSelection() {
  const items = selectedItems();
  const all = $('#select-all');
  all.checked = items.length > 0 && items.length === app.items.length;
  all.indeterminate = items.length > 0 && items.length < app.items.length;
  all.disabled = app.items.length === 0;
  $('#selection-count').textContent = items.length ? app.t('toolbar.selected', { n: items.length }) : '';
  for (const btn of document.querySelectorAll('[data-bulk]')) {
    const plan = bulkPlan(items, btn.dataset.bulk);
    btn.disabled = app.busy || plan.tasks.length + plan.events.length === 0;
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

function confirmDelete(items, skipped) {
  const t = app.t;
  const dialog = $('#confirm-dialog');
  $('#confirm-title').textContent = t('confirm.delete_title');
  const body = $('#confirm-body');
  const parts = [h('p', { text: items.length === 1 ? t('confirm.delete_one', { name: items[0].name }) : t('confirm.delete_many', { n: items.length }) })];
  if (items.length > 1) {
    const shown = items.slice(0, 8);
    parts.push(h('ul', {}, shown.map((it) => h('li', { text: it.name })), items.length > shown.length ? h('li', { text: '…' }) : null));
  }
  if (skipped > 0) parts.push(h('p', { class: 'hint', text: t('confirm.skipped', { n: skipped }) }));
  body.replaceChildren(...parts);
  $('#confirm-ok').textContent = t('confirm.delete');
  dialog.returnValue = '';
  return new Promise((resolve) => {
    openModal(dialog, () => resolve(dialog.returnValue === 'ok'));
    $('#confirm-cancel').focus();
  });
}

const doneKeys = { enable: 'toast.enabled', disable: 'toast.disabled', run: 'toast.started', delete: 'toast.deleted' };

async function runBulk(action, items, { revert = null, openResult = false } = {}) {
  const t = app.t;
  const plan = bulkPlan(items, action);
  const targets = [...plan.tasks, ...plan.events];
  if (targets.length === 0) {
    if (revert) revert.checked = !revert.checked;
    return;
  }
  if (action === 'delete' && !(await confirmDelete(targets, plan.skipped.length))) return;

  app.busy = true;
  renderSelection();
  if (revert) revert.disabled = true;
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
    if (action === 'delete') for (const it of targets) app.selected.delete(rowKey(it));
    if (openResult && targets.length === 1 && !isEventTask(targets[0])) results.open(targets[0], { startedAt: Date.now() });
  } catch (err) {
    if (revert) revert.checked = !revert.checked;
    if (!(err instanceof ApiError && err.code === ERR_NOT_LOGGED_IN)) toaster.error(errorText(err, t));
  } finally {
    app.busy = false;
    if (revert) revert.disabled = false;
    await loadList({ quiet: true });
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
      if (ev.target.checked) app.selected.add(rowKey(it));
      else app.selected.delete(rowKey(it));
    }
    renderGrid();
  });
  for (const btn of document.querySelectorAll('[data-bulk]')) {
    btn.addEventListener('click', () => runBulk(btn.dataset.bulk, selectedItems()));
  }
  $('#refresh').addEventListener('click', () => loadList());
  $('#page-size').addEventListener('change', (ev) => {
    app.grid = setPageSize(app.grid, Number(ev.target.value));
    loadList();
  });
  const go = (page) => {
    const pages = pageCount(app.total, app.grid.pageSize);
    app.grid = { ...app.grid, page: Math.min(Math.max(0, page), pages - 1) };
    loadList();
  };
  $('#page-first').addEventListener('click', () => go(0));
  $('#page-prev').addEventListener('click', () => go(app.grid.page - 1));
  $('#page-next').addEventListener('click', () => go(app.grid.page + 1));
  $('#page-last').addEventListener('click', () => go(Infinity));
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
