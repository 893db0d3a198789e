// Signing in and out: a plain account and a wrong password refused in the page's
// language, an administrator's password, the token, a second tab; a CSP violation is caught.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { useSystem, sys, openPage, signedInPage, closePage, signInWithToken, signInWithPassword, gridReady, row, noProblems, addTask, listTasks, PASSWORD } from './harness.js';

useSystem(() => addTask('Alpha', 'beep', { beep_duration: 1 }));

test('only administrators sign in, refusals in the page language; sign-out forgets the view', async () => {
  // Every language offered has its texts installed.
  for (const { code } of await (await fetch(`${sys.base}/assets/languages.json`)).json()) {
    assert.equal((await fetch(`${sys.base}/texts/${code}/strings.json`)).status, 200, code);
  }
  const page = await openPage({ lang: 'de-DE' });
  await signInWithPassword(page, sys.plain);
  await page.locator('#login-error:not([hidden])').waitFor();
  assert.match(await page.locator('#login-error').innerText(), /kein Administrator/);
  assert.equal(await page.locator('#app-view').isHidden(), true);
  await signInWithPassword(page, sys.admin, { password: `${PASSWORD}x`, here: true });
  await page.waitForFunction(() => /Passwort/.test(document.querySelector('#login-error').textContent));

  await signInWithPassword(page, sys.admin, { here: true });
  await gridReady(page);
  assert.match(await page.locator('#user-text').innerText(), new RegExp(sys.admin));
  await page.locator('#select-all').check();
  await page.locator('#logout').click();
  await signInWithToken(page);
  assert.equal(page.url(), `${sys.base}/`, 'the token leaves the address');
  assert.equal(await page.locator('#select-all').isChecked(), false, 'no selection left from before');
  await closePage(page);
});

test('a sign-in in a second tab does not break the first; a sign-out there ends it', async () => {
  const first = await signedInPage();
  // The second tab signs in anew (the sign-in link): a new session and CSRF token.
  const second = await first.context().newPage();
  await signInWithToken(second);
  await row(first, 'Alpha').getByRole('switch').click();
  await first.locator('.toast:not(.error)').first().waitFor();
  await gridReady(first);
  assert.equal(await first.locator('.toast.error').count(), 0);
  assert.equal((await listTasks()).find((x) => x.name === 'Alpha').enable, false);
  await second.locator('#logout').click();
  await first.locator('#login-view').waitFor();
  await closePage(first);
});

test('a CSP violation fails a scenario (the server\'s headers are checked by its own tests)', async () => {
  const page = await signedInPage();
  const refused = page.waitForEvent('console', (msg) => /Content Security Policy/.test(msg.text()));
  await page.evaluate(() => document.body.append(Object.assign(document.createElement('script'), { textContent: 'window.injected = 1' })));
  await refused;
  assert.equal(await page.evaluate(() => window.injected), undefined);
  assert.throws(() => noProblems(page), /Content Security Policy/);
  await page.context().close();
});
