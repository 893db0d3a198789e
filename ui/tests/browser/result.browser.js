// Running a task and watching it: the result view shows output while the task runs, stops
// it, keeps the history with each run's output to open, and says when output
// was cut; the grid's last-run column follows. Deleting a task. The axe-core pass over every
// view, light and dark.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { writeFileSync, rmSync } from 'node:fs';
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

test('run, watch, stop; history with output to open; the grid follows', async () => {
  const page = await signedInPage();
  await openResult(page, 'Slow');

  // While it runs: running, its output so far, no second start, the grid marks it.
  await page.locator('#result-run').click();
  await page.waitForFunction(() => /first-line/.test(document.querySelector('#result-body').textContent)
    && document.querySelector('#result-body .badge.running'));
  assert.equal(await page.locator('#result-run').isDisabled(), true);
  assert.doesNotMatch(await body(page).innerText(), /Skipped/);
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
  const stoppedAt = await historyRows(page).first().locator('button').innerText();

  // The older run's own output.
  await historyRows(page).nth(1).locator('button').click();
  await page.waitForFunction(() => /last-line/.test(document.querySelector('#result-body pre.output')?.textContent ?? ''));
  assert.equal(await historyRows(page).nth(1).locator('button').getAttribute('aria-current'), 'true');

  // Closed: the grid's last-run column shows the stopped run.
  await closeDialog(page, 'result-dialog');
  await row(page, 'Slow').locator('.col-last', { hasText: 'Stopped' }).waitFor();
  assert.equal(await row(page, 'Slow').locator('.col-last .when').innerText(), stoppedAt.slice(0, 16));

  // Long output: the last 64 KiB, said so.
  await openResult(page, 'Chatty');
  await page.locator('#result-run').click();
  await page.locator('#result-body .note', { hasText: 'only its last 64 KiB were kept' }).waitFor();
  await page.waitForFunction(() => !document.querySelector('#result-body .badge.running'));
  assert.match(await page.locator('#result-body pre.output').textContent(), /\n19999\n20000\n$/);
  await closeDialog(page, 'result-dialog');
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
