// The page's texts come from the appliance's own text files (texts/LANG/strings.json,
// section "taskscheduler_page"), so a language is added by adding its file. Week days
// and plural forms come from Intl.

export const SECTION = 'taskscheduler_page';
export const DEFAULT_LANG = 'en';

// The whole strings.json of a language, or null.
export async function fetchTexts(lang, fetchImpl = globalThis.fetch) {
  try {
    const res = await fetchImpl(`texts/${encodeURIComponent(lang)}/strings.json`, { cache: 'no-cache' });
    if (!res.ok) return null;
    const texts = await res.json();
    return texts && typeof texts === 'object' ? texts : null;
  } catch {
    return null;
  }
}

// The languages offered: [{code, label}] from assets/languages.json (made at install
// time from the text folders).
export async function fetchLanguages(fetchImpl = globalThis.fetch) {
  try {
    const res = await fetchImpl('assets/languages.json', { cache: 'no-cache' });
    const list = res.ok ? await res.json() : null;
    if (Array.isArray(list) && list.length) return list.filter((l) => l && typeof l.code === 'string');
  } catch { /* the default language only */ }
  return [{ code: DEFAULT_LANG, label: 'English' }];
}

// Picks the first available language from candidates such as "de-AT" or "en".
export function pickLanguage(candidates, available, fallback = DEFAULT_LANG) {
  const codes = available.map((l) => (typeof l === 'string' ? l : l.code));
  for (const c of candidates) {
    if (typeof c !== 'string' || c === '') continue;
    const lower = c.toLowerCase().replace('_', '-');
    if (codes.includes(lower)) return lower;
    const base = lower.split('-')[0];
    if (codes.includes(base)) return base;
  }
  return fallback;
}

const weekdayCache = new Map();
// Names of the week day `d` (0 = Sunday) in the language: {long, short}.
export function weekdayName(lang, d, style = 'long') {
  const key = `${lang}|${style}`;
  if (!weekdayCache.has(key)) {
    const fmt = new Intl.DateTimeFormat(lang, { weekday: style, timeZone: 'UTC' });
    // 2023-01-01 was a Sunday.
    weekdayCache.set(key, [0, 1, 2, 3, 4, 5, 6].map((i) => fmt.format(new Date(Date.UTC(2023, 0, 1 + i)))));
  }
  return weekdayCache.get(key)[d];
}

// A translator over the page's section of a language, with the default language's
// section as fallback, then the key itself (an untranslated text stays visible).
// A numeric variable "n" picks the plural form "KEY_CATEGORY" (as Intl.PluralRules
// names it, e.g. "_one") when the texts have one.
export function translator(lang, texts, fallbackTexts = null) {
  const dict = texts?.[SECTION] ?? {};
  const base = fallbackTexts?.[SECTION] ?? {};
  let rules;
  try {
    rules = new Intl.PluralRules(lang);
  } catch {
    rules = new Intl.PluralRules(DEFAULT_LANG);
  }
  const look = (k) => (typeof dict[k] === 'string' ? dict[k] : typeof base[k] === 'string' ? base[k] : undefined);
  const t = function t(key, vars) {
    let text;
    if (vars && typeof vars.n === 'number') text = look(`${key}_${rules.select(vars.n)}`);
    if (text === undefined) text = look(key) ?? key;
    if (!vars) return text;
    return text.replace(/\{(\w+)\}/g, (m, name) => (Object.hasOwn(vars, name) ? String(vars[name]) : m));
  };
  t.lang = lang;
  t.has = (key) => look(key) !== undefined;
  return t;
}
