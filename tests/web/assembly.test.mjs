// The assembled scripts: the build's assembly matches the manifests, every placeholder is
// filled, and each script is one self-contained expression.
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { describe, it } from 'node:test';
import vm from 'node:vm';

import { assembleScript } from '../../resources/assemble.mjs';
import { builtScriptPath, manifests, placeholderValues, scriptText } from './support/harness.mjs';

describe('assembled scripts', () => {
  for (const kind of ['runtime', 'ossConfig']) {
    it(`${kind}: the build assembled exactly the manifest's files with this deployment's values`, (t) => {
      const built = builtScriptPath(kind);
      if (!built) {
        t.skip('no build tree (QEV_STAGE_DIR) to compare with');
        return;
      }
      assert.equal(readFileSync(built, 'utf8'), assembleScript(manifests[kind], placeholderValues()));
    });

    it(`${kind}: fills every placeholder and compiles as one statement`, () => {
      const text = scriptText(kind);
      assert.doesNotMatch(text, /@QEV_[A-Z_]+@/);
      assert.doesNotThrow(() => new vm.Script(text, { filename: kind }));
      const statements = text.split('\n').filter((line) => /^\S/.test(line) && !line.startsWith('//'));
      assert.deepEqual(statements, ['(function () {', '})();'], 'one function scope, nothing at the top level');
    });
  }

  it('refuses a manifest placeholder without a value', () => {
    const values = placeholderValues();
    delete values.QEV_CIPHER_KEY;
    assert.throws(() => assembleScript(manifests.runtime, values), /QEV_CIPHER_KEY/);
  });
});
