// Running a task and watching it: the result view waits for the status before it lets
// anyone start again, shows output while the task runs, stops it, keeps the history
// with each run's output to open and download, and says when output was cut; the grid's
// last-run column follows. Deleting a task. The axe-core pass over every view, light and dark.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync, writeFileSync, rmSync } from 'node:fs';
import { join } from 'node:path';
import { useSystem, sys, signedInPage, closePage, row, openResult, openEditor, closeDialog, axeCheck, shot, addTask, listTasks } from './harness.js';

let gate;
useSystem(async () => {
  gate = join(sys.root, 'gate');
  // Slow runs until the test opens its gate: the test decides when it ends.
  await addTask('Slow', 'script', { script: `echo first-line; while [ ! -e ${gate} ]; do sleep 0.1; done; echo last-line; exit 2` });
  // About 109 KB of output: only the last 64 KiB are kept.
  await addTask('Chatty', 'script', { script: 'seq 1 20000' });
});

const body = (page) => page.locator('#result-body');
const historyRows = (page) => page.locator('#result-body table.runs tbody tr');

test('run, watch, stop; history with output to open and download; the grid follows', async () => {
  const page = await signedInPage();
  // Hold the status replies a moment, as a slow appliance would.
  let held = 0;
  await page.route('**/webapi/entry', async (route) => {
    const req = route.request().postDataJSON();
    if (req?.method === 'view' || req?.api === 'ORVA.Core.TaskRuns') {
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

  // While it runs: running, its output so far, no second start, the grid marks it.
  await page.locator('#result-run').click();
  await page.waitForFunction(() => /first-line/.test(document.querySelector('#result-body').textContent)
    && document.querySelector('#result-body .badge.running'));
  assert.equal(await page.locator('#result-run').isDisabled(), true);
  assert.doesNotMatch(await body(page).innerText(), /Skipped/);
  assert.equal(await historyRows(page).first().locator('.badge').innerText(), 'Running');
  await row(page, 'Slow').locator('.col-last:has(.badge.running) .when').waitFor();
  // Then the finished run.
  writeFileSync(gate, '');
  await page.waitForFunction(() => /last-line/.test(document.querySelector('#result-body').textContent)
    && !document.querySelector('#result-body .badge.running'));
  assert.match(await body(page).innerText(), /Failed[\s\S]*Exit code\s*2/);

  // A second run, stopped while it runs: recorded as stopped, newest first.
  rmSync(gate);
  await page.locator('#result-run').click();
  await page.locator('#result-stop:not([hidden])').click();
  await page.waitForFunction(() => /Stopped/.test(document.querySelector('#result-body table.runs tbody tr')?.textContent ?? '')
    && !document.querySelector('#result-body .badge.running'));
  assert.match(await body(page).innerText(), /Result\s*Stopped[\s\S]*Exit code\s*Stopped by signal 15/);
  assert.equal(await historyRows(page).count(), 2);
  const stoppedAt = await historyRows(page).first().locator('button').innerText();

  // The older run's own output, and its download.
  await historyRows(page).nth(1).locator('button').click();
  await page.waitForFunction(() => /last-line/.test(document.querySelector('#result-body pre.output')?.textContent ?? ''));
  assert.equal(await historyRows(page).nth(1).locator('button').getAttribute('aria-current'), 'true');
  const [download] = await Promise.all([page.waitForEvent('download'), page.locator('#result-body .output-head a').click()]);
  assert.match(download.suggestedFilename(), /^Slow-\d{14}\.log$/);
  assert.equal(readFileSync(await download.path(), 'utf8'), 'first-line\nlast-line\n');

  // Closed: the grid's last-run column shows the stopped run.
  await closeDialog(page, 'result-dialog');
  await row(page, 'Slow').locator('.col-last', { hasText: 'Stopped' }).waitFor();
  assert.equal(await row(page, 'Slow').locator('.col-last .when').innerText(), stoppedAt.slice(0, 16));

  // Long output: the last 64 KiB, said so.
  await openResult(page, 'Chatty');
  await page.locator('#result-run').click();
  await page.locator('#result-body .note', { hasText: 'only its last 64 KiB were kept' }).waitFor();
  await page.waitForFunction(() => !document.querySelector('#result-body .badge.running'));
  const out = await page.locator('#result-body pre.output').textContent();
  assert.ok(out.endsWith('\n19999\n20000\n') && out.length <= 65536 && !out.startsWith('1\n2\n'), `kept ${out.length} bytes`);
  await closeDialog(page, 'result-dialog');
  await row(page, 'Chatty').locator('.col-last', { hasText: 'Succeeded' }).waitFor();
  await shot(page, 'grid-last-run');
  await closePage(page);
});

test('axe-core: grid, each editor with its preview, result view with history, confirmation, light and dark; delete', async () => {
  for (const dark of [false, true]) {
    const page = await signedInPage({ dark });
    const scheme = dark ? 'dark' : 'light';
    // Primary buttons keep their colours on hover.
    await page.locator('#create-btn').hover();
    await axeCheck(page, `grid (${scheme})`);
    for (const kind of ['script', 'beep', 'recycle', 'service']) {
      await openEditor(page, kind);
      await page.locator('#edit-dialog .preview-list li').first().waitFor();
      await axeCheck(page, `${kind} editor (${scheme})`);
      await closeDialog(page, 'edit-dialog');
      await page.locator('#edit-dialog').waitFor({ state: 'hidden' });
    }
    for (const name of ['Slow', 'Chatty']) {
      await openResult(page, name);
      await page.locator('#result-body table.runs').waitFor();
      await axeCheck(page, `result view of ${name} (${scheme})`);
      await closeDialog(page, 'result-dialog');
    }
    await row(page, 'Slow').getByRole('button', { name: 'Delete task Slow' }).click();
    await page.locator('#confirm-dialog[open]').waitFor();
    await axeCheck(page, `confirmation (${scheme})`);
    await page.locator(dark ? '#confirm-ok' : '#confirm-cancel').click();
    await row(page, 'Slow').waitFor({ state: dark ? 'detached' : 'visible' });
    await closePage(page);
  }
  assert.deepEqual((await listTasks()).map((x) => x.name), ['Chatty']);
});
