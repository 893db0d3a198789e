// The grid with 130 tasks: filters, selection across pages, bulk actions that name what
// they left out, the row switch and its focus, state in the address, event rows, and the
// layout at 390, 1024 and 1366 px in English and German.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { useSystem, sys, signedInPage, closePage, gridReady, row, addTask, listTasks, SCHED, TS } from './harness.js';

useSystem(async () => {
  for (let i = 0; i < 126; i++) {
    const [n, schedule] = [String(i).padStart(3, '0'), { ...SCHED, minute: i % 60 }];
    await (i % 2 ? addTask(`Beep ${n}`, 'beep', { beep_duration: 1 }, { schedule })
      : addTask(`Script ${n}`, 'script', { script: 'true' }, { schedule, enable: i % 4 === 0 }));
  }
  const service = (id) => ({ type: 'service', id, name: id, enable: true });
  await addTask('FTP up', 'service', { action: 'start', services: [service('FileXfer'), service('FileXferSsh')] });
  await sys.client.call('ORVA.Core.EventScheduler', 1, 'create', { task_name: 'At boot', owner: 'root', enable: true, event: 'bootup', script: 'true' });
  // A task of another app, editable from the UI: still not in this page's editor ("set" would drop its app's data).
  execFileSync(`${sys.root}/usr/orva/bin/orva-taskctl`, ['--root', sys.root, 'add', JSON.stringify({
    name: 'Storage report', app: 'ORVA.VEK.DataAnalysis', action: 'report', command: 'true', owner: 'root', can_edit_from_ui: true, schedule: SCHED,
  })]);
});

// Types into the search field and waits for the grid's total and rows that match: the
// total alone may still be the previous search's.
async function search(page, text, total) {
  await page.locator('#filter-q').fill(text);
  await page.waitForFunction(([t, q]) => document.querySelector('#pager-total').textContent === t
    && [...document.querySelectorAll('#grid-body td.col-name')].every((td) => td.textContent.toLowerCase().includes(q)), [total, text.toLowerCase()]);
}

test('filters, select all across pages, bulk actions, event rows and service names', async () => {
  const page = await signedInPage();
  assert.equal(await page.locator('#pager-total').innerText(), '129 tasks');
  await page.locator('#filter-type').selectOption('script');
  await page.locator('#filter-state').selectOption('disabled');
  await search(page, '', '31 tasks');
  await page.locator('#select-all').check();
  await page.locator('#select-every').click();
  await page.waitForFunction(() => /31/.test(document.querySelector('#selection-count').textContent));
  await page.locator('[data-bulk="enable"]').click();
  await page.waitForFunction(() => document.querySelector('#grid-state').hidden === false);
  assert.equal((await listTasks()).filter((x) => x.type === 'script' && !x.enable).length, 0, 'every disabled script enabled, also off the page');

  // Event rows show their event; other apps' tasks say why they cannot be edited.
  await page.locator('#filter-clear').click();
  await search(page, 'boot', '1 task');
  assert.match(await row(page, 'At boot').locator('.col-next').innerText(), /Runs at boot-up/);
  assert.match(await row(page, 'At boot').getByRole('button', { name: 'Edit task At boot' }).getAttribute('title'), /event scheduler/);
  // Its switch changes the event scheduler's own entry, which keeps its script.
  await row(page, 'At boot').getByRole('switch').click();
  await page.locator('.toast', { hasText: 'Disabled “At boot”' }).waitFor();
  assert.deepEqual((await sys.client.call('ORVA.Core.EventScheduler', 1, 'list', {})).map((e) => [e.enable, e.script]), [[false, 'true']]);
  await page.locator('#filter-owner').fill('root');
  await search(page, 'report', '1 task');
  assert.match(await row(page, 'Storage report').getByRole('button', { name: 'Edit task Storage report' }).getAttribute('title'), /own app/);

  // A selection kept across searches, with an event task: a bulk run names it as left out.
  await page.locator('#filter-clear').click();
  await search(page, 'at boot', '1 task');
  await page.locator('#select-all').check();
  await search(page, 'FTP', '1 task');
  assert.match(await row(page, 'FTP up').locator('.col-action').innerText(), /"FTP" "SFTP"/);
  await row(page, 'FTP up').getByRole('checkbox', { name: 'Select task FTP up' }).check();
  await page.locator('[data-bulk="run"]').click();
  await page.locator('.toast.error', { hasText: 'Left out' }).waitFor();
  assert.match(await page.locator('.toast.error').last().innerText(), /“At boot”/);
  await closePage(page);
});

test('the row switch keeps the focus; sort, size and page survive a reload; toasts go', async () => {
  const page = await signedInPage();
  await page.locator('th[data-sort="name"] button').click();
  await page.locator('#page-size').selectOption('10');
  await page.locator('#page-next').click();
  await page.waitForFunction(() => /11–20/.test(document.querySelector('#pager-range').textContent));
  await page.reload();
  await gridReady(page);
  assert.match(await page.locator('#pager-range').innerText(), /11–20 of 129/);
  assert.equal(await page.locator('th[data-sort="name"]').getAttribute('aria-sort'), 'ascending');
  assert.equal(await page.locator('#grid-body tr td.col-name').first().innerText(), 'Beep 019');
  const sw = page.locator('#grid-body tr').first().getByRole('switch');
  const key = await sw.getAttribute('data-focus');
  await sw.focus();
  for (let i = 0; i < 5; i++) {
    await page.keyboard.press('Space');
    await page.locator('.toast').first().waitFor();
    await page.waitForFunction(() => !document.querySelector('[aria-busy="true"]'));
  }
  assert.equal(await page.evaluate(() => document.activeElement?.dataset.focus), key, 'focus stays on the switch');
  assert.ok(await page.locator('.toast').count() <= 4, 'toasts do not pile up');
  await page.locator('.toast').first().waitFor({ state: 'detached', timeout: 12000 });
  await closePage(page);
});

test('layout in English and German: 390, 1024 and 1366 px', async () => {
  // The first rows have a last run (its result and start) to show.
  const { tasks } = await sys.client.call(TS, 2, 'list', { sort_by: 'next_trigger_time', sort_direction: 'asc', offset: 0, limit: 2 });
  await sys.client.call(TS, 2, 'run', { tasks: tasks.map((x) => ({ id: x.id })) });
  for (const [lang, width] of [390, 1024, 1366].flatMap((w) => [['en-US', w], ['de-DE', w]])) {
    const page = await signedInPage({ lang, width, height: 800 });
    await page.locator('#grid-body .last-run .when').first().waitFor({ state: 'attached' });
    // Every cell's text in view: not hidden, not under its row's sticky tools, not cut
    // off sideways; the row buttons and the language select's text inside the viewport.
    const faults = await page.evaluate(() => {
      const out = [];
      const sel = document.querySelector('#lang-select');
      const ctx = document.createElement('canvas').getContext('2d');
      ctx.font = getComputedStyle(sel).font;
      if (ctx.measureText(sel.selectedOptions[0].text).width + 20 > sel.clientWidth || sel.getBoundingClientRect().right > innerWidth) out.push('language select');
      for (const tr of [...document.querySelectorAll('#grid tr')].slice(0, 13)) {
        const tools = tr.querySelector('.col-tools').getBoundingClientRect();
        for (const b of tr.querySelectorAll('td.col-tools button')) {
          const r = b.getBoundingClientRect();
          if (r.left < 0 || r.right > innerWidth) out.push(`button ${b.getAttribute('aria-label')} at ${r.left}..${r.right}`);
        }
        for (const td of tr.querySelectorAll(':is(td, th):not(.col-tools)')) {
          const range = document.createRange();
          for (const n of [...td.querySelectorAll('*'), td].flatMap((e) => [...e.childNodes]).filter((n) => n.nodeType === 3 && n.data.trim())) {
            range.selectNodeContents(n);
            const rects = [...range.getClientRects()];
            const box = n.parentElement.getBoundingClientRect();
            if (!rects.length || !box.width) out.push(`${td.className} "${n.data}" hidden`);
            for (const r of rects) {
              const under = r.right > tools.left + 0.5 && r.left < tools.right - 0.5 && r.bottom > tools.top + 0.5 && r.top < tools.bottom - 0.5;
              if (under || r.right > innerWidth || r.left < 0 || r.right > box.right + 1) out.push(`${td.className} "${n.data}" at ${Math.round(r.left)}..${Math.round(r.right)}${under ? ' under the tools' : ''}`);
            }
          }
        }
      }
      const action = document.querySelector('#grid-body td.col-action');
      if (innerWidth === 1366 && action.getBoundingClientRect().width < 170) out.push('the action column is squeezed');
      return [...new Set(out)].slice(0, 8);
    });
    assert.deepEqual(faults, [], `${lang} ${width}: every cell readable, row buttons in view`);
    await closePage(page);
  }
});
