// Assembles a page script from the manifest.json of its folder: the listed files joined in
// order, each listed placeholder @NAME@ replaced by its value. cmake/AssembleScript.cmake
// does the same at build time; the tests use this one when no build tree is at hand.
import { readFileSync } from 'node:fs';
import { dirname, join } from 'node:path';

export function readManifest(manifestPath) {
  return JSON.parse(readFileSync(manifestPath, 'utf8'));
}

export function assembleScript(manifestPath, values) {
  const manifest = readManifest(manifestPath);
  const folder = dirname(manifestPath);
  let text = manifest.files.map((file) => readFileSync(join(folder, file), 'utf8')).join('');
  for (const name of manifest.placeholders) {
    if (!(name in values)) {
      throw new Error(`no value for placeholder ${name}`);
    }
    text = text.split(`@${name}@`).join(String(values[name]));
  }
  return text;
}

// The repeating XOR of the deployment values, as the comma-separated bytes the scripts hold.
export function xorBytes(text, key) {
  const data = Buffer.from(text, 'utf8');
  const keyBytes = Buffer.from(key, 'utf8');
  return Array.from(data, (byte, i) => byte ^ keyBytes[i % keyBytes.length]).join(', ');
}
