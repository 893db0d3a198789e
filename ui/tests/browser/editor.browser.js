// Creating and editing every kind with every schedule kind, as a person does it in the
// editor; what the editor says about bad values; a session that ends mid-edit.
import { test, after } from 'node:test';
import assert from 'node:assert/strict';
import { useSystem, sys, signedInPage, gridReady, signInWithPassword, row, editorReady, openEditor, noProblems, shot, listTasks, APPLIANCE_TZ, TS } from './harness.js';

let page;
useSystem(async () => {
  page = await signedInPage();
});
after(() => page && noProblems(page));

const dialog = () => page.locator('#edit-dialog');
const field = (label) => dialog().getByLabel(label, { exact: true });
const fieldError = (label) => dialog().locator('.field', { has: page.getByLabel(label, { exact: true }) }).locator('.error:not([hidden])');

async function when(repeat, { date, time }) {
  await dialog().locator('.segmented label', { hasText: repeat }).click();
  await field(repeat === 'Once' ? 'Date' : repeat === 'Monthly' ? 'First run (repeats on this day of each month)' : 'First day').fill(date);
  await field('First run time').fill(time);
}

async function create(kind, name, repeat, at) {
  await openEditor(page, kind);
  if (name) await field('Task name').fill(name);
  if (repeat) await when(repeat, at);
}

// Saved through the editor: the task as stored.
async function saved(name) {
  await page.locator('#edit-save').click();
  await dialog().waitFor({ state: 'hidden' });
  await gridReady(page);
  const item = (await listTasks()).find((x) => x.name === name);
  assert.ok(item, `${name} is listed`);
  return sys.client.call(TS, 3, 'get', { id: item.id });
}

test('every kind with every schedule kind is created, edited and reads back', async () => {
  await create('script', 'Nightly report', 'Once', { date: '2031-05-06', time: '23:15' });
  await field('Script').fill('echo report');
  let task = await saved('Nightly report');
  assert.deepEqual([task.schedule.repeat_date, task.schedule.date, task.schedule.hour, task.schedule.minute, task.extra.script],
    ['once', '2031-05-06', 23, 15, 'echo report']);

  await create('beep', 'Buzzer', 'Weekly', { date: '2030-01-01', time: '07:05' });
  // A new task starts with every day: leave Monday and Friday.
  for (const d of ['Tue', 'Wed', 'Thu', 'Sat', 'Sun']) await dialog().locator('.days label', { hasText: d }).click();
  await field('Beep for').fill('12');
  // The appliance's next five starts for the form as it stands, before saving.
  await page.waitForFunction(() => {
    const next = [...document.querySelectorAll('#edit-dialog .preview-list li')].map((li) => li.textContent);
    return next.length === 5 && next.every((x) => x.endsWith(' 07:05') && [1, 5].includes(new Date(`${x.slice(0, 10)}T12:00`).getDay()));
  });
  await shot(page, 'editor-preview');
  const first = await dialog().locator('.preview-list li').first().innerText();
  task = await saved('Buzzer');
  assert.deepEqual([task.schedule.repeat_date, task.schedule.week_day, task.extra.beep_duration], ['weekly', '1,5', 12]);
  assert.equal(await row(page, 'Buzzer').locator('.col-next').innerText(), first, 'the grid starts it when the preview said');

  // The age policy's field once replaced the schedule's time: "Enter a valid time."
  await create('recycle', 'Old files', 'Monthly', { date: '2030-01-31', time: '03:00' });
  await dialog().locator('.note', { hasText: 'Months without a day 31 are skipped.' }).waitFor();
  await dialog().getByLabel('Delete files older than').first().check();
  await dialog().locator('input[type="number"][aria-label="Delete files older than"]').fill('30');
  task = await saved('Old files');
  assert.deepEqual([task.schedule.repeat_date, task.schedule.hour, task.extra.clean_file_policy.policy, task.extra.clean_file_policy.time],
    ['monthly', 3, 'time', 30]);

  await create('service', 'File transfer');
  await dialog().locator('.segmented label', { hasText: 'Start' }).click();
  for (const s of ['FTP', 'SFTP']) await dialog().getByLabel(s, { exact: true }).check();
  await dialog().getByLabel('Repeat within the day').selectOption({ label: 'Every 2 hours' });
  await dialog().getByLabel('Last start').selectOption('20');
  task = await saved('File transfer');
  assert.deepEqual([task.schedule.repeat_date, task.schedule.repeat_hour, task.schedule.last_work_hour], ['daily', 2, 20]);
  // The grid names the services as the editor does, not by their ids.
  assert.match(await row(page, 'File transfer').locator('.col-action').innerText(), /"FTP" "SFTP"/);

  // Edited: what the form did not change stays as stored.
  await row(page, 'Buzzer').getByRole('button', { name: 'Edit task Buzzer' }).click();
  await editorReady(page);
  assert.equal(await field('Beep for').inputValue(), '12');
  await field('Beep for').fill('30');
  task = await saved('Buzzer');
  assert.deepEqual([task.schedule.week_day, task.extra.beep_duration], ['1,5', 30]);
});

test('errors: before saving, next to their field, gone once fixed; refusals named in the page language', async () => {
  await create('script');
  await page.locator('#edit-save').click();
  await fieldError('Task name').waitFor();
  await field('Task name').fill('Fixed');
  await fieldError('Task name').waitFor({ state: 'hidden' });

  // The appliance's zone and clock, hours off the browser's: an hour ago has passed there.
  const clock = await sys.client.call('ORVA.Core.TaskRuns', 1, 'clock', {});
  assert.match(await dialog().locator('.zone-note').innerText(), new RegExp(`${APPLIANCE_TZ} \\(UTC\\${clock.utc_offset}\\)`));
  for (const [minutes, passed] of [[-60, true], [60, false]]) {
    const [date, time] = new Date(Date.parse(`${clock.now.replace(' ', 'T')}Z`) + minutes * 60e3).toISOString().split(/T|:\d\d\./);
    await when('Once', { date, time });
    await dialog().locator('.note', { hasText: 'has passed' }).waitFor({ state: passed ? 'visible' : 'hidden' });
    await dialog().locator('.preview-list li', { hasText: passed ? 'will not start again' : `${date} ${time}` }).waitFor();
  }

  // Limits are stated and met in the form: 4096 bytes of script are refused before saving.
  await field('Script').fill('x'.repeat(4096));
  assert.match(await dialog().locator('.counter').innerText(), /4096 of 4095 bytes/);
  await page.locator('#edit-save').click();
  assert.match(await fieldError('Script').innerText(), /too long/);
  await field('Script').fill('true');

  // An unknown "Run as user" is named at its field, not "Invalid (basic) object".
  await field('Run as user').fill('orvat-nosuchuser');
  await page.locator('#edit-save').click();
  await fieldError('Run as user').waitFor();
  assert.match(await fieldError('Run as user').innerText(), /no account named “orvat-nosuchuser”/);
  assert.doesNotMatch(await dialog().innerText(), /Invalid \(basic\) object/);

  // Escape asks before dropping the edit; keeping it leaves everything as typed.
  await page.keyboard.press('Escape');
  await page.locator('#confirm-cancel').click();
  assert.equal(await field('Task name').inputValue(), 'Fixed');
  await page.keyboard.press('Escape');
  await page.locator('#confirm-ok').click();
  await dialog().waitFor({ state: 'hidden' });
});

test('the session ends while editing: the edit is kept and saved after signing in again', async () => {
  await create('beep', 'Kept across sign-in');
  await page.context().clearCookies();
  await page.locator('#edit-save').click();
  await page.locator('#login-view').waitFor();
  assert.match(await page.locator('#login-error').innerText(), /save the task you were editing/);
  assert.equal(await page.locator('#login-account').inputValue(), 'root', 'the account is filled in');
  await signInWithPassword(page, sys.admin, { here: true });
  await page.locator('#edit-dialog[open]').waitFor();
  assert.equal(await field('Task name').inputValue(), 'Kept across sign-in');
  await saved('Kept across sign-in');
});
