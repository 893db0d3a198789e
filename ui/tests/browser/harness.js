// Shared helpers of the browser scenarios: a staged system root with the real server
// and daemon, real accounts (an administrator and a plain user, with passwords through
// PAM), Debian's chromium driven by playwright-core, and the page's own state to wait on.
// CTest (ui_browser) sets ORVA_BUILD_DIR and ORVA_SOURCE_DIR.

import assert from 'node:assert/strict';
import { before, after } from 'node:test';
import { spawn, execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, writeFileSync, rmSync, existsSync, linkSync, unlinkSync, mkdirSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { createRequire } from 'node:module';
import { chromium, request } from 'playwright-core';
import { ApiClient } from '../../assets/js/api.js';

const build = process.env.ORVA_BUILD_DIR;
const source = process.env.ORVA_SOURCE_DIR;
export const PASSWORD = 'Orva-test-pw-1';
export const TS = 'ORVA.Core.TaskScheduler';
// Daily at 03:00 from 2030: seeded tasks never start on their own during a scenario.
export const SCHED = { repeat_date: 'daily', date: '2030-01-01', hour: 3, minute: 0, repeat_min: 0, repeat_hour: 0, last_work_hour: 23, week_day: '0,1,2,3,4,5,6' };
// The appliance runs in a zone far from the browser's, so a page that took the
// browser's clock for the appliance's shows wrong times and warnings.
export const APPLIANCE_TZ = 'Asia/Kathmandu';

function sh(cmd, args, input) {
  for (let i = 0; ; i++) {
    try {
      return execFileSync(cmd, args, { input, stdio: ['pipe', 'pipe', 'pipe'] });
    } catch (err) {
      // useradd and friends refuse while another holds the account files' lock.
      if (i >= 40) throw err;
      execFileSync('sleep', ['0.1']);
    }
  }
}

// The PAM service, linked in whole so that a parallel run never reads half of it.
function ensurePam() {
  const path = '/etc/pam.d/orva-webapi';
  if (existsSync(path)) return;
  const tmp = `${path}.orvat${process.pid}`;
  writeFileSync(tmp, readFileSync(join(source, 'platform/server/pam/orva-webapi')), { mode: 0o644 });
  try { linkSync(tmp, path); } catch { /* another run linked it first */ }
  unlinkSync(tmp);
}

// One appliance and browser for a scenario file (each file runs in its own process):
// sys = {base, root, token, admin, plain, client}, started before the file's tests,
// then `setup()` seeds it; stopped after.
export let sys;
export let browser;
export function useSystem(setup = async () => {}) {
  const procs = [];
  let api;
  before(async () => {
    assert.ok(build && source, 'ORVA_BUILD_DIR and ORVA_SOURCE_DIR must be set (CTest sets them)');
    const root = mkdtempSync(join(tmpdir(), 'orvat-browser-'));
    execFileSync('/bin/bash', [join(source, 'scripts/stage.sh'), build, root], { stdio: 'pipe' });
    const [group, admin, plain] = ['orvatg', 'orvata', 'orvatu'].map((p) => `${p}${process.pid}`);
    sys = { root, admin, plain, group };
    sh('groupadd', [group]);
    sh('useradd', ['-M', '-s', '/bin/sh', '-G', group, admin]);
    sh('useradd', ['-M', '-s', '/bin/sh', plain]);
    sh('chpasswd', [], `${admin}:${PASSWORD}\n${plain}:${PASSWORD}\n`);
    ensurePam();
    writeFileSync(join(root, 'etc/orva/orva.conf'), `admin_group="${group}"\nsupportUnixShare="yes"\ndefault_lang="en"\n`);
    writeFileSync(join(root, 'etc/orva/shares.json'), JSON.stringify([{ name: 'docs', path: join(root, 'srv/docs'), recycle_bin: true }]));
    mkdirSync(join(root, 'srv/docs/.recycle'), { recursive: true });

    const bin = join(root, 'usr/orva/bin');
    const opts = { stdio: 'ignore', env: { ...process.env, TZ: APPLIANCE_TZ } };
    procs.push(spawn(join(bin, 'orva-webapid'), ['--root', root, '--listen', '127.0.0.1:0', '--workers', '2'], opts));
    procs.push(spawn(join(bin, 'orva-schedulerd'), ['--root', root], opts));
    const listenFile = join(root, 'run/orva/webapi.listen');
    for (let i = 0; i < 400 && !existsSync(listenFile); i++) await new Promise((r) => setTimeout(r, 50));
    assert.ok(existsSync(listenFile), 'the server did not start');
    sys.base = `http://${readFileSync(listenFile, 'utf8').trim()}`;
    sys.token = readFileSync(join(root, 'run/orva/login.token'), 'utf8').trim();
    // The test's own client keeps the session cookie as a browser does.
    api = await request.newContext();
    const fetchImpl = async (url, init) => {
      const res = await api.post(url, { headers: init.headers, data: init.body });
      return { status: res.status(), text: () => res.text() };
    };
    sys.client = new ApiClient({ fetchImpl, path: `${sys.base}/webapi/entry`, lang: 'en' });
    await sys.client.login({ token: sys.token });
    // Headless, without sandbox or background services: playwright's own defaults.
    browser = await chromium.launch({ executablePath: process.env.ORVA_CHROMIUM ?? '/usr/bin/chromium', args: ['--disable-gpu', '--disable-quic'] });
    await setup();
  });
  after(async () => {
    await browser?.close();
    await api?.dispose();
    for (const p of procs) p.kill('SIGTERM');
    if (!sys) return;
    for (const u of [sys.admin, sys.plain]) try { sh('userdel', [u]); } catch { /* gone */ }
    try { sh('groupdel', [sys.group]); } catch { /* gone */ }
    rmSync(sys.root, { recursive: true, force: true });
  });
}

// A fresh browser context and page in the browser's own zone; any script error or CSP
// violation of the page lands in page.problems, checked by the scenario's end.
export async function openPage({ lang = 'en-US', dark = false, width = 1366, height = 900 } = {}) {
  const context = await browser.newContext({
    locale: lang, timezoneId: 'America/Los_Angeles', colorScheme: dark ? 'dark' : 'light', viewport: { width, height }, reducedMotion: 'reduce',
  });
  const page = await context.newPage();
  page.problems = [];
  page.on('pageerror', (err) => page.problems.push(`page error: ${err.message}`));
  page.on('console', (msg) => {
    if (msg.type() === 'error' && !/Failed to load resource/.test(msg.text())) page.problems.push(`console: ${msg.text()}`);
  });
  page.setDefaultTimeout(15000);
  return page;
}

// A task of root made through the API; `over` replaces any member.
export const addTask = (name, type, extra, over = {}) => sys.client.call(TS, 3, 'create', {
  name, owner: 'root', enable: true, type, extra, schedule: SCHED, ...over,
});
export const listTasks = async () => (await sys.client.call(TS, 2, 'list', {})).tasks;

// The grid shows the server's list: loaded, not busy.
export async function gridReady(page) {
  await page.locator('#app-view').waitFor({ state: 'visible' });
  await page.waitForFunction(() => !document.querySelector('#grid-wrap').hasAttribute('aria-busy')
    && (document.querySelectorAll('#grid-body tr').length > 0 || !document.querySelector('#grid-state').hidden));
}

// `here`: on the sign-in view as it is (a second try, or a session that ended).
export async function signInWithPassword(page, account, { password = PASSWORD, here = false } = {}) {
  if (!here) await page.goto(`${sys.base}/`);
  await page.locator('#login-account').fill(account);
  await page.locator('#login-password').fill(password);
  await page.locator('#login-submit').click();
}

// Signed in with the token (the link `make run` prints).
export async function signedInPage(opts) {
  const page = await openPage(opts);
  await page.goto(`${sys.base}/?token=${sys.token}`);
  await gridReady(page);
  return page;
}

export function noProblems(page) {
  assert.deepEqual(page.problems, [], 'no script errors or CSP violations');
}

export async function closePage(page) {
  noProblems(page);
  await page.context().close();
}

export const row = (page, name) => page.locator('#grid-body tr', { has: page.locator('td.col-name', { hasText: new RegExp(`^${name.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')}$`) }) });

export async function openResult(page, name) {
  await row(page, name).getByRole('button', { name: `Show the last result of task ${name}` }).click();
  await page.locator('#result-body .facts').waitFor();
}

// The editor is open and filled.
export const editorReady = (page) => page.locator('#edit-dialog[open] #edit-body .section').first().waitFor();

export async function openEditor(page, kind) {
  await page.locator('#create-btn').click();
  await page.locator(`#create-menu [data-kind="${kind}"]`).click();
  await editorReady(page);
}

export const closeDialog = (page, id) => page.locator(`#${id} .dialog-foot [data-close]`).click();

const axeSource = readFileSync(createRequire(import.meta.url).resolve('axe-core/axe.min.js'), 'utf8');
// axe-core over what is in view (the open dialog, or the page); zero violations allowed.
// Evaluated through the debugger, so the page's own CSP does not stand in the way.
export async function axeCheck(page, what) {
  await page.evaluate(axeSource);
  const violations = await page.evaluate(async () => {
    const dialog = document.querySelector('dialog[open]');
    const r = await window.axe.run(dialog ?? document, { resultTypes: ['violations'] });
    return r.violations.map((v) => `${v.id}: ${v.nodes.slice(0, 3).map((n) => n.target.join(' ')).join(' | ')} ${v.nodes[0]?.failureSummary ?? ''}`);
  });
  assert.deepEqual(violations, [], `axe on ${what}`);
}

// ORVA_SHOTS=DIR keeps the README's screenshots.
export async function shot(page, name) {
  if (process.env.ORVA_SHOTS) await page.screenshot({ path: join(process.env.ORVA_SHOTS, `${name}.png`) });
}
