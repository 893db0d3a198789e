// Running a task and watching it: the result view waits for the status before it lets
// anyone start again, shows output while the task runs, then the finished run. And the
// axe-core pass over every view, light and dark.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { startSystem, launch, openPage, signInWithToken, gridReady, row, editorReady, axeCheck, noProblems } from './harness.js';

const TS = 'ORVA.Core.TaskScheduler';
let sys;
let browser;
before(async () => {
  sys = await startSystem();
  browser = await launch();
  const sched = { repeat_date: 'daily', date: '2030-01-01', hour: 3, minute: 0, repeat_min: 0, repeat_hour: 0, last_work_hour: 23, week_day: '0,1,2,3,4,5,6' };
  await sys.client.call(TS, 3, 'create', { name: 'Slow', owner: 'root', enable: true, type: 'script', schedule: sched,
    extra: { script: 'echo first-line; sleep 4; echo last-line; exit 2' } });
});
after(async () => {
  await browser?.close();
  sys?.stop();
});

test('run and watch: no second start before the status is known, output while running', async () => {
  const page = await openPage(browser);
  await signInWithToken(page, sys);
  // Hold the status replies a moment, as a slow appliance would.
  let held = 0;
  await page.route('**/webapi/entry', async (route) => {
    const body = route.request().postDataJSON();
    if (body?.method === 'view' || body?.api === 'ORVA.Core.TaskRuns') {
      held++;
      await new Promise((r) => setTimeout(r, 300));
    }
    await route.continue();
  });
  await row(page, 'Slow').getByRole('button', { name: 'Show the last result of task Slow' }).click();
  await page.locator('#result-dialog[open]').waitFor();
  assert.equal(await page.locator('#result-run').isDisabled(), true, 'Run now waits for the status');
  await page.locator('#result-body .facts').waitFor();
  await page.waitForFunction(() => !document.querySelector('#result-run').disabled);
  await page.unroute('**/webapi/entry');
  assert.ok(held > 0);

  await page.locator('#result-run').click();
  // While it runs: running, its output so far, and no second start.
  await page.waitForFunction(() => /first-line/.test(document.querySelector('#result-body').textContent)
    && document.querySelector('#result-body .badge.running'));
  assert.equal(await page.locator('#result-run').isDisabled(), true);
  assert.doesNotMatch(await page.locator('#result-body').innerText(), /Skipped/);
  // Then the finished run.
  await page.waitForFunction(() => /last-line/.test(document.querySelector('#result-body').textContent)
    && !document.querySelector('#result-body .badge.running'), null, { timeout: 20000 });
  assert.match(await page.locator('#result-body').innerText(), /Failed[\s\S]*Exit code\s*2/);
  await page.locator('#result-dialog [data-close]').first().click();
  noProblems(page);
  await page.context().close();
});

test('axe-core: grid, each editor, result view and confirmation, light and dark', async () => {
  for (const dark of [false, true]) {
    const page = await openPage(browser, { dark });
    const scheme = dark ? 'dark' : 'light';
    await signInWithToken(page, sys);
    await axeCheck(page, `grid (${scheme})`);
    for (const kind of ['script', 'beep', 'recycle', 'service']) {
      await page.locator('#create-btn').click();
      await page.locator(`#create-menu [data-kind="${kind}"]`).click();
      await editorReady(page);
      await axeCheck(page, `${kind} editor (${scheme})`);
      await page.locator('#edit-dialog .dialog-foot [data-close]').click();
      await page.locator('#edit-dialog').waitFor({ state: 'hidden' });
    }
    await row(page, 'Slow').getByRole('button', { name: 'Show the last result of task Slow' }).click();
    await page.locator('#result-body .facts').waitFor();
    await axeCheck(page, `result view (${scheme})`);
    await page.locator('#result-dialog .dialog-foot [data-close]').click();
    await row(page, 'Slow').getByRole('button', { name: 'Delete task Slow' }).click();
    await page.locator('#confirm-dialog[open]').waitFor();
    await axeCheck(page, `confirmation (${scheme})`);
    await page.locator('#confirm-cancel').click();
    await gridReady(page);
    noProblems(page);
    await page.context().close();
  }
});
