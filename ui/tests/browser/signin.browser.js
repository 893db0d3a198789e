// Signing in and out: token, an administrator's password, a plain account refused, a
// second tab, the German page's own texts; the server's framing and script policy.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { useSystem, sys, browser, openPage, signedInPage, signInWithToken, signInWithPassword, gridReady, row, noProblems, addTask, PASSWORD, TS } from './harness.js';

useSystem(async () => {
  for (const name of ['Alpha', 'Beta']) await addTask(name, 'beep', { beep_duration: 1 });
});

test('token and password sign-in of administrators; sign-out forgets the view', async () => {
  const page = await signedInPage();
  assert.equal(page.url(), `${sys.base}/`, 'the token leaves the address');
  await page.locator('#select-all').check();
  await page.locator('#logout').click();
  await page.locator('#login-view').waitFor();

  await signInWithPassword(page, sys.admin);
  await gridReady(page);
  assert.match(await page.locator('#user-text').innerText(), new RegExp(sys.admin));
  assert.equal(await page.locator('#selection-count').innerText(), '', 'no selection left from before');
  assert.equal(await page.locator('#select-all').isChecked(), false);
  noProblems(page);
});

test('a plain account is refused at sign-in, in the page language', async () => {
  // Every language offered has its texts installed.
  const langs = await (await fetch(`${sys.base}/assets/languages.json`)).json();
  for (const { code } of langs) assert.equal((await fetch(`${sys.base}/texts/${code}/strings.json`)).status, 200, code);
  const page = await openPage(browser, { lang: 'de-DE' });
  await signInWithPassword(page, sys.plain);
  await page.locator('#login-error:not([hidden])').waitFor();
  assert.match(await page.locator('#login-error').innerText(), /kein Administrator/);
  assert.equal(await page.locator('#app-view').isHidden(), true);

  await signInWithPassword(page, sys.admin, { password: `${PASSWORD}x`, here: true });
  await page.waitForFunction(() => /Passwort/.test(document.querySelector('#login-error').textContent));
  assert.doesNotMatch(await page.locator('#login-error').innerText(), /wrong|account or password/i);
  noProblems(page);
});

test('a sign-in in a second tab does not break the first', async () => {
  const first = await signedInPage();
  // The second tab signs in anew (the sign-in link): a new session and CSRF token.
  const second = await first.context().newPage();
  await signInWithToken(second);

  // The first tab works on under the new session.
  await row(first, 'Alpha').getByRole('switch').click();
  await first.locator('.toast:not(.error)').first().waitFor();
  await gridReady(first);
  assert.equal(await row(first, 'Alpha').getByRole('switch').isChecked(), false);
  assert.equal(await first.locator('.toast.error').count(), 0);
  const list = await sys.client.call(TS, 2, 'list', {});
  assert.equal(list.tasks.find((x) => x.name === 'Alpha').enable, false);

  // Signed out in the second: the first goes back to the sign-in.
  await second.locator('#logout').click();
  await first.locator('#login-view').waitFor();
  noProblems(first);
});

test('the server\'s policy: the page may not be framed, and a CSP violation fails a scenario', async () => {
  const page = await openPage(browser);
  const headers = (await page.goto(`${sys.base}/`)).headers();
  assert.match(headers['content-security-policy'], /default-src 'self'.*frame-ancestors 'none'/);
  assert.equal(headers['x-frame-options'], 'DENY');
  // An inline script is refused, and the refusal lands where every scenario checks.
  const refused = page.waitForEvent('console', (msg) => /Content Security Policy/.test(msg.text()));
  await page.evaluate(() => document.body.append(Object.assign(document.createElement('script'), { textContent: 'window.injected = 1' })));
  await refused;
  assert.equal(await page.evaluate(() => window.injected), undefined);
  assert.throws(() => noProblems(page), /Content Security Policy/);
  // Framed by another page: the frame stays empty.
  const framer = await page.context().newPage();
  await framer.setContent(`<iframe src="${sys.base}/"></iframe>`);
  assert.equal(await framer.frames()[1].locator('#login-view, #app-view').count(), 0);
  await page.context().close();
});
