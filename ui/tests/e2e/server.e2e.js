// The page's logic against the real server: a system root staged from the build, the
// real orva-webapid with its modules, signed in with the login token. Every request
// the page would send is built by the page's own modules and every reply read by them.
// Run by CTest (ui_e2e), which sets ORVA_BUILD_DIR and ORVA_SOURCE_DIR.

import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, existsSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { ApiClient, ApiError } from '../../assets/js/api.js';
import { taskToForm, formToParams } from '../../assets/js/kinds.js';
import { initialState, listParams, setEnableParams, taskListParams, toggleSort, pageCount } from '../../assets/js/grid.js';
import { matchEventEntry, eventEnableParams, EVENT_API } from '../../assets/js/events.js';
import { describeRunStatus } from '../../assets/js/runstatus.js';

const TS = 'ORVA.Core.TaskScheduler';
const build = process.env.ORVA_BUILD_DIR;
const source = process.env.ORVA_SOURCE_DIR;
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

let root;
let server;
let base;
let lost = 0;
let client;

// fetch with a cookie jar, as a browser keeps the session cookie.
function cookieFetch() {
  const jar = new Map();
  return async (url, init) => {
    const headers = { ...(init.headers ?? {}) };
    if (jar.size) headers.Cookie = [...jar].map(([k, v]) => `${k}=${v}`).join('; ');
    const res = await fetch(url, { ...init, headers });
    for (const c of res.headers.getSetCookie()) {
      const [, name, value] = c.split(';')[0].match(/^\s*([^=]*?)\s*=\s*(.*?)\s*$/);
      if (value === '') jar.delete(name);
      else jar.set(name, value);
    }
    return res;
  };
}

before(async () => {
  assert.ok(build && source, 'ORVA_BUILD_DIR and ORVA_SOURCE_DIR must be set (CTest sets them)');
  root = mkdtempSync(join(tmpdir(), 'orvat-ui-'));
  try {
    execFileSync('/bin/bash', [join(source, 'scripts/stage.sh'), build, root], { stdio: 'pipe' });
  } catch (err) {
    assert.fail(`staging ${build} failed (is the whole tree built?): ${err.stderr?.toString().slice(-2000)}`);
  }
  // The shares the recycle task names: a task may name only existing ones.
  writeFileSync(join(root, 'etc/orva/shares.json'), JSON.stringify(['docs', 'my media'].map(
    (name) => ({ name, path: join(root, 'srv', name), recycle_bin: false }))));
  server = spawn(join(root, 'usr/orva/bin/orva-webapid'), ['--root', root, '--listen', '127.0.0.1:0', '--workers', '1'],
    { stdio: 'ignore' });
  const listenFile = join(root, 'run/orva/webapi.listen');
  for (let i = 0; i < 600 && !existsSync(listenFile); i++) await sleep(50);
  assert.ok(existsSync(listenFile), 'the server did not start');
  base = `http://${readFileSync(listenFile, 'utf8').trim()}`;
  client = new ApiClient({ fetchImpl: cookieFetch(), path: `${base}/webapi/entry`, lang: 'en', onSessionLost: () => { lost++; } });
});

after(() => {
  if (server) server.kill('SIGTERM');
  if (root) rmSync(root, { recursive: true, force: true });
});

const TODAY = '2030-01-15';

// Fills the editor as a user would, for a new task of `kind`, and creates it.
async function createTask(kind, name, fill) {
  const fresh = await client.call(TS, 3, 'get', { id: -1, type: kind });
  const form = taskToForm(fresh, kind, TODAY);
  form.name = name;
  fill(form);
  const { params, errors } = formToParams(form, fresh, kind, true);
  assert.deepEqual(errors, {}, `${kind} form`);
  const { id } = await client.call(TS, 3, 'create', params);
  assert.ok(Number.isInteger(id) && id > 0);
  return id;
}

async function editForm(id) {
  const task = await client.call(TS, 3, 'get', { id });
  return { task, form: taskToForm(task, task.type, TODAY) };
}

test('the served page and its modules', async () => {
  for (const [path, type] of [['/', 'text/html'], ['/assets/js/main.js', 'text/javascript'], ['/assets/app.css', 'text/css']]) {
    const res = await fetch(base + path);
    assert.equal(res.status, 200, path);
    assert.ok(res.headers.get('content-type').startsWith(type), path);
  }
  const html = await (await fetch(`${base}/?token=x`)).text();
  assert.match(html, /<script type="module" src="assets\/js\/main\.js"><\/script>/);
});

test('sign in with the token, and the session rules', async () => {
  const token = readFileSync(join(root, 'run/orva/login.token'), 'utf8').trim();
  await assert.rejects(client.login({ token: 'f'.repeat(64) }), (e) => e instanceof ApiError && e.code > 0 && e.msg !== '');
  await client.login({ token, lang: 'en' });
  const who = await client.whoami();
  assert.deepEqual([who.user, who.is_admin], ['root', true]);
  // Without the CSRF header the session cookie alone is refused.
  const csrf = client.csrf;
  client.csrf = '';
  await assert.rejects(client.call(TS, 2, 'list', {}), (e) => e instanceof ApiError && e.code >= 100 && e.code < 200);
  client.csrf = csrf;
});

test('each kind made with the editor reads back into the same form', async () => {
  const script = await createTask('script', 'Say hello', (f) => {
    f.app.script = 'echo "hello from the UI"; exit 3';
    Object.assign(f.schedule, { repeat: 'weekly', date: '2030-01-14', weekDays: [1, 3, 5], time: '06:30', repeatMode: 'min', repeatEvery: 15, lastHour: 18 });
  });
  const beep = await createTask('beep', 'Beep', (f) => { f.app.duration = '12'; f.enable = false; });
  const recycle = await createTask('recycle', 'Clean docs', (f) => {
    Object.assign(f.app, {
      cleanAll: false, shares: ['docs', 'my media'], policy: 'size', size: '100', sortType: 0,
      keepExt: true, extensions: 'doc, .pdf', keepSmaller: true, smaller: '2',
    });
  });
  const service = await createTask('service', 'Start SMB', (f) => {
    f.app.action = 'start';
    const smb = f.app.services.find((s) => s.id === 'WinShare');
    assert.ok(smb, 'the built-in services are offered');
    smb.enable = true;
  });

  let { form } = await editForm(script);
  assert.deepEqual([form.name, form.app.script], ['Say hello', 'echo "hello from the UI"; exit 3']);
  const { minuteSteps, hourSteps, ...when } = form.schedule;
  assert.ok(minuteSteps.length && hourSteps.length);
  assert.deepEqual(when, { repeat: 'weekly', date: '2030-01-14', weekDays: [1, 3, 5], time: '06:30', repeatMode: 'min', repeatEvery: 15, lastHour: 18 });

  ({ form } = await editForm(beep));
  assert.deepEqual([form.enable, form.app.duration], [false, '12']);

  ({ form } = await editForm(recycle));
  assert.deepEqual(form.app, {
    cleanAll: false, shares: ['docs', 'my media'], policy: 'size', size: '100', sortType: 0, time: '',
    keepGreater: false, greater: '', keepSmaller: true, smaller: '2', keepExt: true, extensions: 'doc, pdf',
    enableBins: false, includeHome: false,
  });

  ({ form } = await editForm(service));
  assert.equal(form.app.action, 'start');
  assert.deepEqual(form.app.services.filter((s) => s.enable).map((s) => s.id), ['WinShare']);

  // Editing: set through the editor's parameters, read back.
  const edited = await editForm(beep);
  edited.form.app.duration = '600';
  Object.assign(edited.form.schedule, { repeat: 'monthly', date: '2030-01-31' });
  const { params, errors } = formToParams(edited.form, edited.task, 'beep', false);
  assert.deepEqual(errors, {});
  assert.deepEqual(await client.call(TS, 3, 'set', params), { id: beep });
  ({ form } = await editForm(beep));
  assert.deepEqual([form.app.duration, form.schedule.repeat, form.schedule.date], ['600', 'monthly', '2030-01-31']);

  // The grid: paging and sorting as the page asks for them.
  const state = { ...toggleSort(initialState(), 'name'), pageSize: 10 };
  const all = await client.call(TS, 2, 'list', listParams(state));
  assert.equal(all.total, 4);
  assert.deepEqual(all.tasks.map((t) => t.name), ['Beep', 'Clean docs', 'Say hello', 'Start SMB']);
  const page2 = await client.call(TS, 2, 'list', listParams({ ...state, pageSize: 3, page: 1 }));
  assert.equal(pageCount(page2.total, 3), 2);
  assert.deepEqual(page2.tasks.map((t) => t.name), ['Start SMB']);

  // Bulk enable, then run one and follow its result as the dialog does.
  await client.call(TS, 2, 'set_enable', setEnableParams(all.tasks, false));
  const off = await client.call(TS, 2, 'list', listParams(state));
  assert.deepEqual(off.tasks.map((t) => t.enable), [false, false, false, false]);

  await client.call(TS, 2, 'run', taskListParams([{ id: script }]));
  let desc;
  for (let i = 0; i < 300; i++) {
    desc = describeRunStatus(await client.call(TS, 1, 'view', { id: script }));
    if (desc.last && !desc.running && desc.last.end) break;
    await sleep(100);
  }
  assert.ok(desc.last, 'the run shows in the run status');
  assert.deepEqual([desc.last.trigger, desc.last.exitCode, desc.last.result], ['manual', 3, 'failed']);
  assert.match(desc.last.output, /hello from the UI/);

  await client.call(TS, 2, 'delete', taskListParams(all.tasks));
  assert.deepEqual(await client.call(TS, 2, 'list', listParams(state)), { tasks: [], total: 0 });
});

test('event tasks in the grid are switched through the event scheduler', async () => {
  await client.call(EVENT_API, 1, 'create', { task_name: 'On boot', owner: 'root', enable: true, event: 'bootup', script: 'true' });
  const list = await client.call(TS, 2, 'list', listParams(initialState()));
  const row = list.tasks.find((t) => t.type === 'event_script');
  assert.ok(row && row.enable === true);
  const m = matchEventEntry(row, await client.call(EVENT_API, 1, 'list', {}));
  assert.ok(m.entry, JSON.stringify(m));
  await client.call(EVENT_API, 1, 'set', eventEnableParams(m.entry, false));
  const again = await client.call(TS, 2, 'list', listParams(initialState()));
  assert.equal(again.tasks.find((t) => t.name === 'On boot').enable, false);
  await client.call(EVENT_API, 1, 'delete', { id: m.entry.id });
  assert.equal((await client.call(TS, 2, 'list', {})).total, 0);
});

test('bad input is refused with the server message, and sign-out ends the session', async () => {
  const fresh = await client.call(TS, 3, 'get', { id: -1, type: 'script' });
  const form = taskToForm(fresh, 'script', TODAY);
  Object.assign(form, { name: 'x', owner: 'orvat-nosuchuser' });
  form.app.script = 'true';
  const { params } = formToParams(form, fresh, 'script', true);
  await assert.rejects(client.call(TS, 3, 'create', params), (e) => e instanceof ApiError && e.code === 117 && e.msg !== '');
  await assert.rejects(client.call(TS, 3, 'get', { id: 999999 }), (e) => e.code === 4801);

  await client.logout();
  assert.equal(lost, 0);
  await assert.rejects(client.call(TS, 2, 'list', {}), (e) => e.code === 106);
  assert.equal(lost, 1);
});
