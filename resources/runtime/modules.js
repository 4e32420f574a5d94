  // ---- require and its module table -------------------------------------------------------

  if (!isPlainObject(window.__electronGlobals)) {
    window.__electronGlobals = {
      isQuit: false,
      win: {
        show: noop,
        hide: noop,
        focus: noop,
        restore: noop,
        isMinimized: function () {
          return false;
        },
      },
      tray: trayMethods(),
    };
  }

  if (!isPlainObject(window.__nativeSettingsCache)) {
    window.__nativeSettingsCache = { mode: 'rule', autoLaunch: false, tun: false };
  }

  function trayMethods() {
    return {
      setContextMenu: noop,
      setToolTip: noop,
      setImage: noop,
      on: noop,
      once: noop,
      destroy: noop,
      popUpContextMenu: noop,
    };
  }

  function buildFromTemplate(template) {
    return { template: template || [] };
  }

  function createFromPath(value) {
    return value || '';
  }

  const canProxy = typeof Proxy === 'function';

  // A stand-in for anything the desktop shell offered that the page does not need: it can
  // be called, constructed, chained and awaited (it is not a promise) without failing.
  function callableStub(name) {
    let self;
    const stub = function () {
      return callableStub(name);
    };
    try {
      Object.defineProperty(stub, 'name', { value: name, configurable: true });
    } catch (_) {
      // Older engines keep function names read-only; the stub still works.
    }
    stub.on = function () {
      return self;
    };
    stub.once = stub.on;
    ['send', 'close', 'destroy', 'setContextMenu', 'setToolTip', 'setImage', 'popUpContextMenu']
        .forEach(function (method) {
          stub[method] = noop;
        });
    stub.buildFromTemplate = buildFromTemplate;
    stub.getAllWindows = function () {
      return [];
    };
    stub.getPath = function () {
      return '/';
    };
    stub.getAppPath = stub.getPath;
    stub.createFromPath = createFromPath;
    stub.openExternal = function (url) {
      return openExternal(url);
    };
    stub.toString = function () {
      return '';
    };
    stub.__esModule = true;
    self = canProxy ? new Proxy(stub, {
      get: function (target, property, receiver) {
        if (property === 'then') {
          return undefined;
        }
        if (typeof property === 'symbol' || property in target) {
          return Reflect.get(target, property, receiver);
        }
        const child = callableStub(name + '.' + property);
        target[property] = child;
        return child;
      },
    }) : stub;
    stub.default = self;
    return self;
  }

  // Reads of unknown members are logged and answered with stubs, so that the frontend's
  // use of shell features it never needs here keeps working.
  function loggingModule(module, label) {
    if (!canProxy) {
      return module;
    }
    return new Proxy(module, {
      get: function (target, property, receiver) {
        if (typeof property === 'symbol') {
          return Reflect.get(target, property, receiver);
        }
        nativeLog(label + '.get: ' + property);
        if (property === 'then') {
          return undefined;
        }
        if (property in target) {
          return Reflect.get(target, property, receiver);
        }
        const stub = callableStub(label + '.' + property);
        target[property] = stub;
        return stub;
      },
    });
  }

  function TrayStub() {
    return trayMethods();
  }

  const MenuStub = { buildFromTemplate: buildFromTemplate, setApplicationMenu: noop };
  const nativeImageStub = { createFromPath: createFromPath };
  const shellModule = {
    openExternal: function (url) {
      return openExternal(url);
    },
  };

  function setLoginItemSettings(settings) {
    window.__nativeAutoLaunchElectronAt = Date.now();
    const enabled = Boolean(settings && settings.openAtLogin);
    window.__nativeSettingsCache.autoLaunch = enabled;
    callNative('setAutoLaunch', [{ openAtLogin: enabled }]).then(function (answer) {
      if (isPlainObject(answer)) {
        Object.assign(window.__nativeSettingsCache, answer);
      }
    }, function (error) {
      nativeLog('native.autoLaunch.electron.error: ' + errorMessage(error));
    });
  }

  function electronRemote() {
    return loggingModule({
      app: {
        getPath: function (name) {
          if (name === 'home') {
            return homeFolder();
          }
          if (name === 'userData') {
            return homeFolder() + BUILD.userDataDir;
          }
          return '/';
        },
        getAppPath: function () {
          return '/';
        },
        quit: noop,
        setLoginItemSettings: setLoginItemSettings,
        getLoginItemSettings: function () {
          return { openAtLogin: window.__nativeSettingsCache.autoLaunch === true };
        },
      },
      dialog: {},
      shell: shellModule,
      BrowserWindow: {
        getAllWindows: function () {
          return [];
        },
      },
      Tray: TrayStub,
      Menu: MenuStub,
      nativeImage: nativeImageStub,
      getGlobal: function (name) {
        nativeLog('electron.remote.getGlobal: ' + name);
        const globals = window.__electronGlobals;
        if (!name) {
          return globals;
        }
        if (globals[name] == null) {
          globals[name] = {};
        }
        return globals[name];
      },
    }, 'electron.remote');
  }

  function electronModule() {
    return loggingModule({
      shell: shellModule,
      ipcRenderer: { send: noop, on: noop, once: noop, removeListener: noop },
      Tray: TrayStub,
      Menu: MenuStub,
      nativeImage: nativeImageStub,
      remote: electronRemote(),
    }, 'electron');
  }

  function pathModule() {
    function join() {
      return Array.prototype.map.call(arguments, String).join('/').replace(/\/+/g, '/');
    }
    return {
      join: join,
      resolve: join,
      dirname: function (path) {
        const text = String(path);
        const slash = text.lastIndexOf('/');
        return slash > 0 ? text.slice(0, slash) : '/';
      },
      basename: function (path) {
        const text = String(path);
        return text.slice(text.lastIndexOf('/') + 1);
      },
    };
  }

  function fsModule() {
    return {
      existsSync: function (path) {
        const key = credentialFileOf(path);
        return key !== null && readCredentialFile(key) !== '';
      },
      readFileSync: function (path) {
        const key = credentialFileOf(path);
        if (key === null) {
          return '';
        }
        const value = readCredentialFile(key);
        if (value === '') {
          throw new Error('ENOENT: no such file or directory, open ' + path);
        }
        return value;
      },
      writeFileSync: function (path, data) {
        const key = credentialFileOf(path);
        if (key !== null) {
          writeCredentialFile(key, data);
        }
      },
      copyFileSync: noop,
      mkdirSync: noop,
      unlinkSync: noop,
      watch: function () {
        return { close: noop };
      },
    };
  }

  function inertCryptoModule() {
    function wrapped(value) {
      const text = value == null ? '' : String(value);
      return {
        text: text,
        toString: function () {
          return text;
        },
      };
    }
    const encoder = {
      parse: wrapped,
      stringify: function (value) {
        return value == null ? '' : String(value);
      },
    };
    return {
      enc: { Utf8: encoder, Base64: encoder, Hex: encoder },
      AES: { encrypt: wrapped, decrypt: wrapped },
      MD5: wrapped,
      SHA1: wrapped,
      SHA256: wrapped,
    };
  }

  function expressModule() {
    function express() {
      const app = {
        listen: function () {
          const callback = Array.prototype.slice.call(arguments).reverse().find(function (arg) {
            return typeof arg === 'function';
          });
          if (callback) {
            later(callback);
          }
          return { close: noop, on: noop };
        },
      };
      ['use', 'get', 'post', 'put'].forEach(function (method) {
        app[method] = function () {
          return app;
        };
      });
      return app;
    }
    express.static = function () {
      return function (request, response, next) {
        if (typeof next === 'function') {
          next();
        }
      };
    };
    express.Router = express;
    return express;
  }

  const MODULE_FACTORIES = {
    electron: electronModule,
    path: pathModule,
    fs: fsModule,
    http: nodeHttpModule,
    https: nodeHttpModule,
    request: function () {
      return emulatedRequest;
    },
    'request-promise': requestPromiseModule,
    'request-promise-native': requestPromiseModule,
    'js-yaml': function () {
      return {
        safeLoad: function () {
          return {};
        },
        load: function () {
          return {};
        },
        dump: function (value) {
          return String(value || '');
        },
      };
    },
    'crypto-js': function () {
      if (window.CryptoJS) {
        return window.CryptoJS;
      }
      nativeLog('crypto-js missing');
      return inertCryptoModule();
    },
    child_process: function () {
      return {
        spawn: function () {
          return { once: noop, on: noop, unref: noop };
        },
        execFileSync: function () {
          return '';
        },
      };
    },
    express: expressModule,
    module: function () {
      return { prototype: { require: window.require } };
    },
  };

  const moduleCache = new Map();

  function requireModule(id) {
    const name = String(id);
    nativeLog('require: ' + name);
    if (moduleCache.has(name)) {
      return moduleCache.get(name);
    }
    let module;
    if (Object.prototype.hasOwnProperty.call(MODULE_FACTORIES, name)) {
      module = MODULE_FACTORIES[name]();
    } else {
      nativeLog('require.stub: ' + name);
      module = callableStub(name);
    }
    if (module !== null && (typeof module === 'object' || typeof module === 'function')) {
      if (!Object.prototype.hasOwnProperty.call(module, 'default')) {
        module.default = module;
      }
      if (!Object.prototype.hasOwnProperty.call(module, '__esModule')) {
        module.__esModule = true;
      }
    }
    moduleCache.set(name, module);
    return module;
  }

  if (typeof window.require !== 'function') {
    window.require = requireModule;
  }
