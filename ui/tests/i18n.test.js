import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync, readdirSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { dirname, join } from 'node:path';
import { translator, pickLanguage, weekdayName, SECTION } from '../assets/js/i18n.js';
import { texts } from './texts.js';

const ui = join(dirname(fileURLToPath(import.meta.url)), '..');
const dictionaries = Object.fromEntries(Object.entries(texts).map(([l, x]) => [l, x[SECTION]]));
const placeholders = (s) => [...s.matchAll(/\{(\w+)\}/g)].map((m) => m[1]).sort();

test('every language has every text with the same placeholders', () => {
  const en = dictionaries.en;
  for (const [lang, dict] of Object.entries(dictionaries)) {
    assert.deepEqual(Object.keys(dict).sort(), Object.keys(en).sort(), lang);
    for (const [k, v] of Object.entries(dict)) {
      assert.equal(typeof v, 'string', `${lang} ${k}`);
      assert.notEqual(v.trim(), '', `${lang} ${k}`);
      assert.deepEqual(placeholders(v), placeholders(en[k]), `${lang} ${k}`);
    }
  }
});

test('every text key the page names exists', () => {
  const keys = new Set();
  const html = readFileSync(join(ui, 'index.html'), 'utf8');
  for (const m of html.matchAll(/data-t(?:-aria|-title|-placeholder)?="([^"]+)"/g)) keys.add(m[1]);
  const jsDir = join(ui, 'assets', 'js');
  for (const f of readdirSync(jsDir)) {
    const src = readFileSync(join(jsDir, f), 'utf8');
    // Literal keys in t('...'), and in the text-key values the form models return.
    for (const m of src.matchAll(/\bt\('([a-z_]+\.[\w.]+)'/g)) keys.add(m[1]);
    for (const m of src.matchAll(/'((?:val|err|toast|sched|recycle|service|result|row|grid|col|toolbar|create|edit|dialog|login|header|confirm|type|beep|script|filter)\.[a-z_0-9.]+)'/g)) keys.add(m[1]);
  }
  assert.ok(keys.size > 100, `found ${keys.size} keys`);
  const missing = [...keys].filter((k) => !Object.hasOwn(dictionaries.en, k));
  assert.deepEqual(missing, []);
});

test('translation: placeholders, plural forms from Intl, fallbacks, week days', () => {
  const t = translator('de', texts.de, texts.en);
  assert.equal(t('toast.deleted', { n: 3 }), '3 Aufgaben gelöscht.');
  assert.equal(t('toast.deleted', { n: 1, name: 'A' }), '„A“ gelöscht.');
  assert.equal(t('grid.total', { n: 1 }), '1 Aufgabe');
  assert.equal(t('grid.total', { n: 0 }), '0 Aufgaben');
  assert.equal(t('no.such.key'), 'no.such.key');
  assert.equal(t('grid.range', { first: 1 }), '1–{last} von {total}');
  assert.equal(translator('fr', null, texts.en)('login.title'), 'Sign in');
  assert.deepEqual([0, 1, 6].map((d) => weekdayName('de', d, 'long')), ['Sonntag', 'Montag', 'Samstag']);
  assert.equal(weekdayName('en', 3, 'short'), 'Wed');
});

test('language choice', () => {
  const cases = [
    [['de-AT', 'en'], 'de'], [['fr', 'de_DE'], 'de'], [[], 'en'], [['', null, 'de'], 'de'],
  ];
  const langs = [{ code: 'en' }, { code: 'de' }];
  for (const [cands, want] of cases) assert.equal(pickLanguage(cands, langs), want, cands.join(','));
  assert.equal(pickLanguage(['fr'], langs, 'de'), 'de');
});
