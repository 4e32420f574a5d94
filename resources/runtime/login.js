  // ---- login answers: the credential form the frontend expects, and its persistence -------

  const LOGIN_PATH = /\/api\/v1\/passport\/auth\/login(?:\?|$)/;
  const LEGACY_KEY_SUFFIX = 'kelpmorrowin418';

  function isLoginUrl(url) {
    return typeof url === 'string' && LOGIN_PATH.test(url);
  }

  function dataMember(json) {
    return isPlainObject(json) && isPlainObject(json.data) ? json.data : null;
  }

  function firstPresent() {
    for (let i = 0; i < arguments.length; i++) {
      if (arguments[i] != null) {
        return arguments[i];
      }
    }
    return undefined;
  }

  // The legacy credential's key: the token's letters and digits, then a fixed suffix,
  // exactly 16 characters.
  function legacyCredentialKey(token) {
    let key = (String(token).replace(/[^A-Za-z0-9]/g, '') + LEGACY_KEY_SUFFIX).slice(0, 16);
    while (key.length < 16) {
      key += '0';
    }
    return key;
  }

  function adaptLoginBody(body) {
    try {
      const json = JSON.parse(body);
      const data = dataMember(json);
      const token = (data && data.token) || (isPlainObject(json) ? json.token : undefined);
      const CryptoJS = window.CryptoJS;
      if (!token || !CryptoJS) {
        return body;
      }
      const serverCredential = (data && data.auth_data) || json.auth_data || token;
      window.__nativeLastLoginToken = token;
      window.__nativeLastLoginServerAuthData = serverCredential;

      const key = legacyCredentialKey(token);
      const payload = JSON.stringify({
        token: token,
        authorization: token,
        auth_data: serverCredential,
        is_admin: firstPresent(data && data.is_admin, json.is_admin, 0),
      });
      const encrypted = CryptoJS.AES.encrypt(payload, CryptoJS.enc.Utf8.parse(key), {
        mode: CryptoJS.mode.ECB,
        padding: CryptoJS.pad.Pkcs7,
      });
      const legacy = encrypted.ciphertext.toString(CryptoJS.enc.Base64) + key;
      window.__nativeLastLoginLegacyAuthData = legacy;
      window.__nativeLastLoginAuthData = legacy;
      if (data) {
        data.auth_data = legacy;
      }
      json.auth_data = legacy;
      nativeLog('login.auth_data.generated: yes');
      return JSON.stringify(json);
    } catch (error) {
      nativeLog('login.auth_data.error: ' + errorMessage(error));
      return body;
    }
  }

  function persistLoginState(body) {
    try {
      let json = null;
      try {
        json = JSON.parse(body);
      } catch (_) {
        json = null;
      }
      const data = dataMember(json);
      const top = isPlainObject(json) ? json : {};
      let token = window.__nativeLastLoginToken || (data && data.token) || top.token || '';
      let legacy = window.__nativeLastLoginLegacyAuthData || (data && data.auth_data) || top.auth_data || '';
      let server = window.__nativeLastLoginServerAuthData || token || '';
      legacy = legacy || token || server;
      server = server || token;
      if (!token && !legacy && !server) {
        return;
      }
      if (token) {
        storageSet('token', token);
        virtualFiles().token = String(token);
      }
      if (legacy) {
        storageSet('auth_data', legacy);
        virtualFiles().auth_data = String(legacy);
      }
      if (server) {
        storageSet('authorization', server);
      }
      const isAdmin = firstPresent(data && data.is_admin, top.is_admin);
      if (isAdmin != null) {
        storageSet('is_admin', String(isAdmin));
      }
      nativeLog('login.persist: token=' + (token ? 'yes' : 'no') + ' auth_data=' + (legacy ? 'legacy' : 'no') +
                ' authorization=' + (server ? 'yes' : 'no'));
      reloadOnceAfterLogin();
    } catch (error) {
      nativeLog('login.persist.error: ' + errorMessage(error));
    }
  }

  // The frontend reads its login state only at start; one reload per browser session
  // makes it pick up the persisted credentials.
  function reloadOnceAfterLogin() {
    if (storageRead('sessionStorage', '__nativeLoginReloaded')) {
      return;
    }
    if (!storageWrite('sessionStorage', '__nativeLoginReloaded', '1')) {
      return;
    }
    later(function () {
      try {
        window.history.replaceState(null, '', '/');
        window.location.reload();
      } catch (error) {
        nativeLog('login.persist.error: ' + errorMessage(error));
      }
    }, 150);
  }
