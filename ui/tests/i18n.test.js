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

test('every language has every text the page names, with the same placeholders', () => {
  const en = dictionaries.en;
  for (const [lang, dict] of Object.entries(dictionaries)) {
    assert.deepEqual(Object.keys(dict).sort(), Object.keys(en).sort(), lang);
    for (const [k, v] of Object.entries(dict)) {
      assert.ok(typeof v === 'string' && v.trim() !== '', `${lang} ${k}`);
      assert.deepEqual(placeholders(v), placeholders(en[k]), `${lang} ${k}`);
    }
  }
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
  assert.deepEqual([...keys].filter((k) => !Object.hasOwn(en, k)), []);
});

test('translation: plural forms and week days from Intl, fallbacks; language choice', () => {
  const t = translator('de', texts.de, texts.en);
  assert.equal(t('toast.deleted', { n: 1, name: 'A' }), '„A“ gelöscht.');
  assert.equal(t('no.such.key'), 'no.such.key');
  assert.equal(translator('fr', null, texts.en)('login.title'), 'Sign in');
  assert.deepEqual([1, 0].map((d) => weekdayName('de', d, 'short')), ['Mo', 'So']);
  // The browser's de-DE picks German in the scenarios; the rest falls back.
  assert.equal(pickLanguage(['', null, 'fr', 'de_DE'], [{ code: 'en' }, { code: 'de' }]), 'de');
  assert.equal(pickLanguage(['fr'], [{ code: 'en' }]), 'en');
});
