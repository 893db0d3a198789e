// The page's texts as installed: data/texts/LANG/strings.json.
import { readFileSync, readdirSync } from 'node:fs';
import { fileURLToPath } from 'node:url';
import { dirname, join } from 'node:path';

const dir = join(dirname(fileURLToPath(import.meta.url)), '..', '..', 'data', 'texts');
export const texts = Object.fromEntries(readdirSync(dir).map((l) => [l, JSON.parse(readFileSync(join(dir, l, 'strings.json'), 'utf8'))]));
