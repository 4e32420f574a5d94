// The language tables: complete, consistent with each other, and covering every text the
// frontend's code asks for; the language chosen from the system's locales.
import assert from 'node:assert/strict';
import { readdirSync, readFileSync, statSync } from 'node:fs';
import { join } from 'node:path';
import { describe, it } from 'node:test';

import { DEFAULT_LANGUAGE, LANGUAGES, LANGUAGE_NAMES, pickLanguage, STRINGS, translator } from '../../../frontend/js/i18n.js';
import { MODES } from '../../../frontend/js/views/settings.js';
import { sourceDir } from '../support/harness.mjs';

function sourceFiles(folder) {
  return readdirSync(folder).flatMap((name) => {
    const path = join(folder, name);
    return statSync(path).isDirectory() ? sourceFiles(path) : name.endsWith('.js') ? [path] : [];
  });
}

const KEY_PREFIXES = ['activity', 'app', 'lang', 'nav', 'login', 'home', 'connect', 'nodes', 'settings', 'error'];

// Every table key written literally in the frontend's code, plus the keys built from the modes.
function keysUsedInCode() {
  const used = new Set();
  const literal = new RegExp(`'((?:${KEY_PREFIXES.join('|')})\\.[\\w.]+)'`, 'g');
  for (const file of sourceFiles(join(sourceDir, 'frontend/js'))) {
    if (file.endsWith('i18n.js')) {
      continue;
    }
    for (const match of readFileSync(file, 'utf8').matchAll(literal)) {
      if (!match[1].endsWith('.js')) {
        used.add(match[1]);
      }
    }
  }
  for (const mode of MODES) {
    used.add(`settings.mode.${mode}`);
    used.add(`settings.mode.${mode}.hint`);
  }
  return used;
}

function placeholders(text) {
  return [...text.matchAll(/\{(\w+)\}/g)].map((match) => match[1]).sort();
}

describe('language tables', () => {
  const reference = Object.keys(STRINGS[DEFAULT_LANGUAGE]).sort();

  for (const language of LANGUAGES) {
    it(`${language} has every key, no blank text and the same placeholders`, () => {
      const table = STRINGS[language];
      assert.deepEqual(Object.keys(table).sort(), reference);
      for (const key of reference) {
        assert.ok(typeof table[key] === 'string' && table[key].trim() !== '', `${language} ${key} is blank`);
        assert.deepEqual(placeholders(table[key]), placeholders(STRINGS[DEFAULT_LANGUAGE][key]), `${language} ${key}`);
      }
      assert.ok(LANGUAGE_NAMES[language]);
    });
  }

  it('covers every key the code asks for, and nothing is left unused', () => {
    const used = keysUsedInCode();
    const missing = [...used].filter((key) => !(key in STRINGS[DEFAULT_LANGUAGE]));
    assert.deepEqual(missing, []);
    const unused = reference.filter((key) => !used.has(key));
    assert.deepEqual(unused, []);
  });

});

describe('language choice', () => {
  const cases = [
    ['saved choice wins', 'en', ['zh-CN'], 'en'],
    ['unknown saved choice is ignored', 'de', ['en-GB'], 'en'],
    ['Chinese of any region', '', ['zh-TW'], 'zh-CN'],
    ['English of any region', null, ['en_US'], 'en'],
    ['first locale that can be served', '', ['de-DE', 'en-US', 'zh-CN'], 'en'],
    ['nothing usable', '', ['de-DE', 'fr'], 'zh-CN'],
    ['no locales at all', undefined, undefined, 'zh-CN'],
  ];
  for (const [name, saved, locales, expected] of cases) {
    it(name, () => assert.equal(pickLanguage(saved, locales), expected));
  }
});
