// Shared helpers of the browser scenarios: a staged system root with the real server
// and daemon, real accounts (an administrator and a plain user, with passwords through
// PAM), Debian's chromium driven by playwright-core, and the page's own state to wait on.
// CTest (ui_browser) sets ORVA_BUILD_DIR and ORVA_SOURCE_DIR.

import assert from 'node:assert/strict';
import { before, after } from 'node:test';
import { spawn, execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, writeFileSync, rmSync, existsSync, linkSync, unlinkSync, mkdirSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, dirname } from 'node:path';
import { fileURLToPath } from 'node:url';
import { createRequire } from 'node:module';
import { chromium } from 'playwright-core';
import { ApiClient } from '../../assets/js/api.js';

const require = createRequire(import.meta.url);
const build = process.env.ORVA_BUILD_DIR;
const source = process.env.ORVA_SOURCE_DIR ?? join(dirname(fileURLToPath(import.meta.url)), '../../..');
export const PASSWORD = 'Orva-test-pw-1';
export const TS = 'ORVA.Core.TaskScheduler';
// Daily at 03:00 from 2030: seeded tasks never start on their own during a scenario.
export const SCHED = { repeat_date: 'daily', date: '2030-01-01', hour: 3, minute: 0, repeat_min: 0, repeat_hour: 0, last_work_hour: 23, week_day: '0,1,2,3,4,5,6' };

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

function ensurePam() {
  const path = '/etc/pam.d/orva-webapi';
  if (existsSync(path)) return;
  const tmp = `${path}.orvat${process.pid}`;
  writeFileSync(tmp, readFileSync(join(source, 'platform/server/pam/orva-webapi')), { mode: 0o644 });
  try {
    linkSync(tmp, path);
  } catch (err) {
    if (err.code !== 'EEXIST') throw err;
  } finally {
    unlinkSync(tmp);
  }
}

// The appliance runs in a zone far from the browser's (BROWSER_TZ), so a page that
// took the browser's clock for the appliance's shows wrong times and warnings.
export const APPLIANCE_TZ = 'Asia/Kathmandu';
const BROWSER_TZ = 'America/Los_Angeles';

// A running appliance: {base, root, token, admin, plain, client, stop()}.
export async function startSystem() {
  assert.ok(build, 'ORVA_BUILD_DIR must be set (CTest sets it)');
  const root = mkdtempSync(join(tmpdir(), 'orvat-browser-'));
  execFileSync('/bin/bash', [join(source, 'scripts/stage.sh'), build, root], { stdio: 'pipe' });
  const tag = `${process.pid}`;
  const group = `orvatg${tag}`;
  const admin = `orvata${tag}`;
  const plain = `orvatu${tag}`;
  sh('groupadd', [group]);
  sh('useradd', ['-M', '-s', '/bin/sh', '-G', group, admin]);
  sh('useradd', ['-M', '-s', '/bin/sh', plain]);
  sh('chpasswd', [], `${admin}:${PASSWORD}\n${plain}:${PASSWORD}\n`);
  ensurePam();
  writeFileSync(join(root, 'etc/orva/orva.conf'), `admin_group="${group}"\nsupportUnixShare="yes"\ndefault_lang="en"\n`);
  writeFileSync(join(root, 'etc/orva/shares.json'), JSON.stringify([{ name: 'docs', path: join(root, 'srv/docs'), recycle_bin: true }]));
  mkdirSync(join(root, 'srv/docs/.recycle'), { recursive: true });

  const bin = join(root, 'usr/orva/bin');
  const procs = [];
  const opts = { stdio: 'ignore', env: { ...process.env, TZ: APPLIANCE_TZ } };
  procs.push(spawn(join(bin, 'orva-webapid'), ['--root', root, '--listen', '127.0.0.1:0', '--workers', '2'], opts));
  procs.push(spawn(join(bin, 'orva-schedulerd'), ['--root', root], opts));
  const listenFile = join(root, 'run/orva/webapi.listen');
  for (let i = 0; i < 400 && !existsSync(listenFile); i++) await new Promise((r) => setTimeout(r, 50));
  assert.ok(existsSync(listenFile), 'the server did not start');
  const base = `http://${readFileSync(listenFile, 'utf8').trim()}`;
  const token = readFileSync(join(root, 'run/orva/login.token'), 'utf8').trim();
  const client = new ApiClient({ fetchImpl: cookieFetch(), path: `${base}/webapi/entry`, lang: 'en' });
  await client.login({ token });
  return {
    base, root, token, admin, plain, client,
    stop() {
      for (const p of procs) p.kill('SIGTERM');
      for (const u of [admin, plain]) try { sh('userdel', [u]); } catch { /* gone */ }
      try { sh('groupdel', [group]); } catch { /* gone */ }
      rmSync(root, { recursive: true, force: true });
    },
  };
}

// One appliance and browser for a scenario file (each file runs in its own process, so
// the bindings are the file's own): started before its tests, then `setup()` seeds it;
// stopped after.
export let sys;
export let browser;
export function useSystem(setup = async () => {}) {
  before(async () => {
    sys = await startSystem();
    browser = await launch();
    await setup();
  });
  after(async () => {
    await browser?.close();
    sys?.stop();
  });
}

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

export function launch() {
  return chromium.launch({
    executablePath: process.env.ORVA_CHROMIUM ?? '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
      '--disable-component-update', '--disable-sync', '--disable-dev-shm-usage'],
  });
}

// A fresh browser context and page; any script error or CSP violation of the page fails
// the test (collected in page.problems, checked by the scenario's end).
export async function openPage(browser, { lang = 'en-US', dark = false, width = 1366, height = 900 } = {}) {
  const context = await browser.newContext({
    locale: lang, timezoneId: BROWSER_TZ, colorScheme: dark ? 'dark' : 'light', viewport: { width, height }, reducedMotion: 'reduce',
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

// The grid shows the server's list: loaded, not busy.
export async function gridReady(page) {
  await page.locator('#app-view').waitFor({ state: 'visible' });
  await page.waitForFunction(() => !document.querySelector('#grid-wrap').hasAttribute('aria-busy')
    && (document.querySelectorAll('#grid-body tr').length > 0 || !document.querySelector('#grid-state').hidden));
}

export async function signInWithToken(page) {
  await page.goto(`${sys.base}/?token=${sys.token}`);
  await gridReady(page);
}

// `here`: on the sign-in view as it is (a second try, or a session that ended).
export async function signInWithPassword(page, account, { password = PASSWORD, here = false } = {}) {
  if (!here) await page.goto(`${sys.base}/`);
  await page.locator('#login-account').fill(account);
  await page.locator('#login-password').fill(password);
  await page.locator('#login-submit').click();
}

export const row = (page, name) => page.locator('#grid-body tr', { has: page.locator('td.col-name', { hasText: new RegExp(`^${name.replace(/[.*+?^${}()|[\]\\]/g, '\\$&')}$`) }) });

export async function openResult(page, name) {
  await row(page, name).getByRole('button', { name: `Show the last result of task ${name}` }).click();
  await page.locator('#result-body .facts').waitFor();
}

// The editor is open and filled.
export async function editorReady(page) {
  await page.locator('#edit-dialog[open] #edit-body .section').first().waitFor();
}

export async function openEditor(page, kind) {
  await page.locator('#create-btn').click();
  await page.locator(`#create-menu [data-kind="${kind}"]`).click();
  await editorReady(page);
}

export const closeDialog = (page, id) => page.locator(`#${id} .dialog-foot [data-close]`).click();

export async function saveEditor(page) {
  await page.locator('#edit-save').click();
  await page.locator('#edit-dialog').waitFor({ state: 'hidden' });
  await gridReady(page);
}

const axeSource = readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');
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

// WCAG contrast of an element's text on its background, as rendered now.
export function contrastOf(locator) {
  return locator.evaluate((el) => {
    const rgb = (c) => c.match(/[\d.]+/g).slice(0, 3).map(Number);
    const lum = ([r, g, b]) => {
      const f = (v) => { const s = v / 255; return s <= 0.03928 ? s / 12.92 : ((s + 0.055) / 1.055) ** 2.4; };
      return 0.2126 * f(r) + 0.7152 * f(g) + 0.0722 * f(b);
    };
    const cs = getComputedStyle(el);
    // A brightness filter changes the painted colours: apply it.
    const k = Number(/brightness\(([\d.]+)\)/.exec(cs.filter)?.[1] ?? 1);
    const [a, b] = [cs.color, cs.backgroundColor].map((c) => lum(rgb(c).map((v) => Math.min(255, v * k))));
    return (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05);
  });
}

export async function shot(page, name) {
  if (process.env.ORVA_SHOTS) await page.screenshot({ path: join(process.env.ORVA_SHOTS, `${name}.png`) });
}

export function noProblems(page) {
  assert.deepEqual(page.problems, [], 'no script errors or CSP violations');
}

// A page of its own context, signed in with the token.
export async function signedInPage(opts) {
  const page = await openPage(browser, opts);
  await signInWithToken(page);
  return page;
}

// The scenario's end for a page: no problems, its context closed.
export async function closePage(page) {
  noProblems(page);
  await page.context().close();
}
