// Signing in and out: a plain account and a wrong password refused in the page's
// language, an administrator's password, the token, a second tab; a CSP violation is caught.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { useSystem, sys, openPage, signedInPage, closePage, signInWithPassword, gridReady, row, noProblems, addTask, listTasks, PASSWORD } from './harness.js';

useSystem(() => addTask('Alpha', 'beep', { beep_duration: 1 }));

test('only administrators sign in, refusals in the page language; sign-out forgets the view', async () => {
  const page = await openPage({ lang: 'de-DE' });
  await signInWithPassword(page, sys.plain);
  await page.locator('#login-error:not([hidden])').waitFor();
  assert.match(await page.locator('#login-error').innerText(), /kein Administrator/);
  assert.equal(await page.locator('#app-view').isHidden(), true);
  await signInWithPassword(page, sys.admin, { password: `${PASSWORD}x`, here: true });
  await page.waitForFunction(() => /Passwort/.test(document.querySelector('#login-error').textContent));

  // Twice on the same view: the second sign-in starts without the first one's selection.
  for (let i = 0; i < 2; i++) {
    await signInWithPassword(page, sys.admin, { here: true });
    await gridReady(page);
    assert.match(await page.locator('#user-text').innerText(), new RegExp(sys.admin));
    assert.equal(await page.locator('#select-all').isChecked(), false, 'no selection left from before');
    await page.locator('#select-all').check();
    await page.locator('#logout').click();
  }
  await closePage(page);
});

test('a sign-in in a second tab does not break the first; a sign-out there ends it', async () => {
  const first = await signedInPage();
  assert.equal(first.url(), `${sys.base}/`, 'the token leaves the address');
  // The second tab signs in anew (the sign-in link): a new session and CSRF token.
  const second = await first.context().newPage();
  await second.goto(`${sys.base}/?token=${sys.token}`);
  await gridReady(second);
  await row(first, 'Alpha').getByRole('switch').click();
  await first.locator('.toast:not(.error)').first().waitFor();
  await gridReady(first);
  assert.equal(await first.locator('.toast.error').count(), 0);
  assert.equal((await listTasks()).find((x) => x.name === 'Alpha').enable, false);
  await second.locator('#logout').click();
  await first.locator('#login-view').waitFor();

  // An inline script is refused, and the refusal lands where every scenario checks.
  const refused = first.waitForEvent('console', (msg) => /Content Security Policy/.test(msg.text()));
  await first.evaluate(() => document.body.append(Object.assign(document.createElement('script'), { textContent: 'window.injected = 1' })));
  await refused;
  assert.equal(await first.evaluate(() => window.injected), undefined);
  assert.throws(() => noProblems(first), /Content Security Policy/);
  await first.context().close();
});
