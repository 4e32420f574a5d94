  // ---- virtual credential files ----------------------------------------------------------

  // The frontend keeps its login in two files; here they live in memory and in local storage.
  if (!isPlainObject(window.__nativeVirtualFiles)) {
    window.__nativeVirtualFiles = {};
  }

  const CREDENTIAL_FILES = ['auth_data', 'token'];

  function credentialFileOf(path) {
    if (path == null) {
      return null;
    }
    let text;
    try {
      text = String(path).replace(/\\/g, '/');
    } catch (_) {
      return null;
    }
    const name = text.slice(text.lastIndexOf('/') + 1).toLowerCase();
    return CREDENTIAL_FILES.indexOf(name) >= 0 ? name : null;
  }

  function virtualFiles() {
    if (!isPlainObject(window.__nativeVirtualFiles)) {
      window.__nativeVirtualFiles = {};
    }
    return window.__nativeVirtualFiles;
  }

  function readCredentialFile(key) {
    const value = virtualFiles()[key];
    if (nonEmptyString(value)) {
      return value;
    }
    if (key === 'auth_data') {
      return storageGet('auth_data') || storageGet('authorization') || '';
    }
    return storageGet('token') || '';
  }

  function writeCredentialFile(key, data) {
    const text = data == null ? '' : String(data);
    virtualFiles()[key] = text;
    if (key === 'auth_data') {
      storageSet('auth_data', text);
      storageSet('authorization', text);
    } else {
      storageSet('token', text);
    }
  }
