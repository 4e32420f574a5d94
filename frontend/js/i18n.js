// Every text the frontend shows, one table per language. Simplified Chinese is the default;
// English is chosen from the system locale or by the user. Placeholders read {name}.

export const DEFAULT_LANGUAGE = 'zh-CN';
export const LANGUAGES = Object.freeze(['zh-CN', 'en']);

// The language's own name, shown in the language picker whatever language is active.
export const LANGUAGE_NAMES = Object.freeze({ 'zh-CN': '简体中文', en: 'English' });

const zhCN = {
  'app.name': 'QEV',
  'app.loading': '正在启动…',
  'lang.switch': '切换语言',
  'lang.short': 'EN',
  'nav.label': '主导航',
  'nav.home': '首页',
  'nav.nodes': '节点',
  'nav.settings': '设置',
  'nav.activity': '活动',
  'activity.connections': '连接',
  'activity.logs': '日志',
  'activity.count': '{count} 个连接',
  'activity.closeAll': '全部关闭',
  'activity.close': '关闭 {host} 的连接',
  'activity.noConnections': '当前没有连接',
  'activity.level': '级别',
  'activity.level.debug': '调试',
  'activity.level.info': '信息',
  'activity.level.warning': '警告',
  'activity.level.error': '错误',
  'activity.copy': '复制',
  'activity.copied': '已复制',
  'activity.noLogs': '暂无日志',

  'login.title': '登录',
  'login.subtitle': '使用面板账户登录',
  'login.email': '邮箱',
  'login.password': '密码',
  'login.showPassword': '显示密码',
  'login.hidePassword': '隐藏密码',
  'login.submit': '登录',
  'login.busy': '正在登录…',
  'login.missingEmail': '请输入邮箱。',
  'login.missingPassword': '请输入密码。',
  'login.expired': '登录已过期，请重新登录。',
  'login.noCredential': '服务器没有返回登录凭据，请稍后重试。',
  'login.website': '注册账户或找回密码',

  'home.account': '账户',
  'home.plan': '套餐',
  'home.noPlan': '未订阅套餐',
  'home.traffic': '流量',
  'home.trafficUsed': '已用 {used} / 共 {total}',
  'home.trafficLeft': '剩余 {left}',
  'home.expires': '到期',
  'home.expiresNever': '长期有效',
  'home.expired': '已于 {date} 到期',
  'home.daysLeft': '剩余 {days} 天',
  'home.reset': '流量重置',
  'home.resetIn': '{days} 天后',
  'home.resetToday': '今天',
  'home.resetNone': '不重置',
  'home.loading': '正在加载账户信息…',
  'home.loadFailed': '无法加载账户信息：{detail}',
  'home.retry': '重试',
  'home.node': '当前节点',
  'home.noNode': '未选择',
  'home.nodesLoading': '正在准备节点…',
  'home.chooseNode': '选择节点',

  'connect.connect': '连接',
  'connect.disconnect': '断开',
  'connect.retry': '重试',
  'connect.connecting': '正在连接…',
  'connect.disconnecting': '正在断开…',
  'connect.connected': '已连接',
  'connect.disconnected': '未连接',
  'connect.failed': '连接失败：{detail}',
  'connect.unavailable': '当前节点不可用',
  'connect.unavailableHint': '请在“节点”中选择其他节点后重试。',
  'connect.disconnectFailed': '断开失败：{detail}',
  'connect.coreStopped': '已断开：代理核心已停止',
  'home.speed': '实时速度',
  'home.upload': '上传',
  'home.download': '下载',
  'home.routing': '{mode}模式',
  'home.tunOn': 'TUN 已开启',
  'home.tunOff': 'TUN 未开启',

  'nodes.title': '节点',
  'nodes.count': '共 {count} 个',
  'nodes.test': '测速',
  'nodes.testing': '测速中…',
  'nodes.refresh': '更新订阅',
  'nodes.refreshing': '更新中…',
  'nodes.refreshed': '订阅已更新。',
  'nodes.refreshFailed': '更新订阅失败：{detail}',
  'nodes.loading': '正在加载节点…',
  'nodes.empty': '暂无可用节点，请更新订阅。',
  'nodes.current': '当前',
  'nodes.switching': '切换中…',
  'nodes.delay': '{ms} ms',
  'nodes.timeout': '超时',
  'nodes.delayFailed': '不可用',
  'nodes.untested': '未测速',
  'nodes.selected': '已切换到 {name}。',
  'nodes.selectFailed': '无法切换到 {name}：{detail}',
  'nodes.coreDown': '代理核心未运行，已记住 {name}，将在下次连接时使用。',
  'nodes.group': '策略组',

  'settings.title': '设置',
  'settings.mode': '代理模式',
  'settings.mode.rule': '规则',
  'settings.mode.rule.hint': '按规则分流，国内网站直连',
  'settings.mode.global': '全局',
  'settings.mode.global.hint': '所有流量都经过代理',
  'settings.mode.direct': '直连',
  'settings.mode.direct.hint': '所有流量都不经过代理',
  'settings.modeSaved': '已保存，将在代理核心启动后生效。',
  'settings.modeFailed': '无法切换代理模式：{detail}',
  'settings.tun': 'TUN 模式',
  'settings.tun.hint': '接管本机全部流量，需要管理员授权',
  'settings.tunApplying': '正在应用 TUN 模式…',
  'settings.tunRefused': '未获得管理员授权，TUN 模式保持关闭。',
  'settings.tunFailed': '无法切换 TUN 模式：{detail}',
  'settings.autoLaunch': '开机自启',
  'settings.autoLaunch.hint': '登录系统后自动启动 QEV',
  'settings.autoLaunchFailed': '无法更改开机自启设置。',
  'settings.language': '语言',
  'settings.website': '打开官网',
  'settings.website.hint': '在浏览器中管理账户与套餐',
  'settings.version': '版本',
  'settings.account': '当前账户',
  'settings.logout': '退出登录',

  'error.network': '无法连接服务器，请检查网络后重试。',
  'error.badReply': '服务器返回了无法识别的内容（HTTP {status}）。',
  'error.http': '服务器出错（HTTP {status}）。',
  'error.coreTimeout': '代理核心启动超时。',
  'error.coreDown': '代理核心未运行。',
  'error.noSubscription': '尚未获取订阅，请稍后重试。',
  'error.subscribeHttp': '订阅下载失败（HTTP {status}）。',
  'error.tunTimeout': '切换 TUN 模式后代理核心未能及时重启。',
  'error.noApp': '此操作需要在 QEV 应用中进行。',
  'error.unknown': '操作失败：{detail}',
};

const en = {
  'app.name': 'QEV',
  'app.loading': 'Starting…',
  'lang.switch': 'Switch language',
  'lang.short': '中文',
  'nav.label': 'Main',
  'nav.home': 'Home',
  'nav.nodes': 'Nodes',
  'nav.settings': 'Settings',
  'nav.activity': 'Activity',
  'activity.connections': 'Connections',
  'activity.logs': 'Logs',
  'activity.count': '{count} open',
  'activity.closeAll': 'Close all',
  'activity.close': 'Close the connection to {host}',
  'activity.noConnections': 'No connections right now',
  'activity.level': 'Level',
  'activity.level.debug': 'Debug',
  'activity.level.info': 'Info',
  'activity.level.warning': 'Warning',
  'activity.level.error': 'Error',
  'activity.copy': 'Copy',
  'activity.copied': 'Copied',
  'activity.noLogs': 'No log lines yet',

  'login.title': 'Sign in',
  'login.subtitle': 'Use your panel account',
  'login.email': 'E-mail',
  'login.password': 'Password',
  'login.showPassword': 'Show password',
  'login.hidePassword': 'Hide password',
  'login.submit': 'Sign in',
  'login.busy': 'Signing in…',
  'login.missingEmail': 'Enter your e-mail address.',
  'login.missingPassword': 'Enter your password.',
  'login.expired': 'Your session has expired. Please sign in again.',
  'login.noCredential': 'The server sent no sign-in credential. Please try again later.',
  'login.website': 'Create an account or reset your password',

  'home.account': 'Account',
  'home.plan': 'Plan',
  'home.noPlan': 'No plan',
  'home.traffic': 'Traffic',
  'home.trafficUsed': '{used} of {total} used',
  'home.trafficLeft': '{left} left',
  'home.expires': 'Expires',
  'home.expiresNever': 'Never',
  'home.expired': 'Expired on {date}',
  'home.daysLeft': '{days} days left',
  'home.reset': 'Traffic reset',
  'home.resetIn': 'In {days} days',
  'home.resetToday': 'Today',
  'home.resetNone': 'Not scheduled',
  'home.loading': 'Loading your account…',
  'home.loadFailed': 'Could not load your account: {detail}',
  'home.retry': 'Retry',
  'home.node': 'Node',
  'home.noNode': 'None selected',
  'home.nodesLoading': 'Preparing nodes…',
  'home.chooseNode': 'Choose a node',

  'connect.connect': 'Connect',
  'connect.disconnect': 'Disconnect',
  'connect.retry': 'Try again',
  'connect.connecting': 'Connecting…',
  'connect.disconnecting': 'Disconnecting…',
  'connect.connected': 'Connected',
  'connect.disconnected': 'Not connected',
  'connect.failed': 'Connection failed: {detail}',
  'connect.unavailable': 'The selected node is unavailable',
  'connect.unavailableHint': 'Choose another node under Nodes and try again.',
  'connect.disconnectFailed': 'Could not disconnect: {detail}',
  'connect.coreStopped': 'Disconnected: the proxy core stopped',
  'home.speed': 'Live speed',
  'home.upload': 'Upload',
  'home.download': 'Download',
  'home.routing': '{mode} mode',
  'home.tunOn': 'TUN on',
  'home.tunOff': 'TUN off',

  'nodes.title': 'Nodes',
  'nodes.count': '{count} in total',
  'nodes.test': 'Test latency',
  'nodes.testing': 'Testing…',
  'nodes.refresh': 'Update subscription',
  'nodes.refreshing': 'Updating…',
  'nodes.refreshed': 'Subscription updated.',
  'nodes.refreshFailed': 'Could not update the subscription: {detail}',
  'nodes.loading': 'Loading nodes…',
  'nodes.empty': 'No nodes yet. Update your subscription.',
  'nodes.current': 'Current',
  'nodes.switching': 'Switching…',
  'nodes.delay': '{ms} ms',
  'nodes.timeout': 'Timed out',
  'nodes.delayFailed': 'Unreachable',
  'nodes.untested': 'Not tested',
  'nodes.selected': 'Switched to {name}.',
  'nodes.selectFailed': 'Could not switch to {name}: {detail}',
  'nodes.coreDown': 'The proxy core is not running. {name} is remembered for the next connection.',
  'nodes.group': 'Group',

  'settings.title': 'Settings',
  'settings.mode': 'Routing mode',
  'settings.mode.rule': 'Rule',
  'settings.mode.rule.hint': 'Follow the rules; local sites go direct',
  'settings.mode.global': 'Global',
  'settings.mode.global.hint': 'Send all traffic through the proxy',
  'settings.mode.direct': 'Direct',
  'settings.mode.direct.hint': 'Send no traffic through the proxy',
  'settings.modeSaved': 'Saved. It applies once the proxy core runs.',
  'settings.modeFailed': 'Could not change the routing mode: {detail}',
  'settings.tun': 'TUN mode',
  'settings.tun.hint': 'Capture all traffic of this computer; needs administrator approval',
  'settings.tunApplying': 'Applying TUN mode…',
  'settings.tunRefused': 'Administrator approval was refused, so TUN mode stays off.',
  'settings.tunFailed': 'Could not change TUN mode: {detail}',
  'settings.autoLaunch': 'Start at login',
  'settings.autoLaunch.hint': 'Open QEV when you log in to this computer',
  'settings.autoLaunchFailed': 'Could not change start at login.',
  'settings.language': 'Language',
  'settings.website': 'Open the website',
  'settings.website.hint': 'Manage your account and plan in the browser',
  'settings.version': 'Version',
  'settings.account': 'Signed in as',
  'settings.logout': 'Sign out',

  'error.network': 'Cannot reach the server. Check your network and try again.',
  'error.badReply': 'The server sent an unexpected reply (HTTP {status}).',
  'error.http': 'Server error (HTTP {status}).',
  'error.coreTimeout': 'The proxy core did not start in time.',
  'error.coreDown': 'The proxy core is not running.',
  'error.noSubscription': 'No subscription yet. Please try again in a moment.',
  'error.subscribeHttp': 'The subscription download failed (HTTP {status}).',
  'error.tunTimeout': 'The proxy core did not restart in time after the TUN change.',
  'error.noApp': 'This only works inside the QEV app.',
  'error.unknown': 'Something went wrong: {detail}',
};

export const STRINGS = Object.freeze({ 'zh-CN': Object.freeze(zhCN), en: Object.freeze(en) });

// The language for a saved choice and the system's preferred locales: the saved choice when it
// is one we have, else the first locale we can serve (any Chinese is served in Simplified
// Chinese, any English in English), else the default.
export function pickLanguage(saved, locales) {
  if (LANGUAGES.includes(saved)) {
    return saved;
  }
  for (const locale of locales || []) {
    const tag = String(locale || '').toLowerCase();
    if (tag === 'zh' || tag.startsWith('zh-') || tag.startsWith('zh_')) {
      return 'zh-CN';
    }
    if (tag === 'en' || tag.startsWith('en-') || tag.startsWith('en_')) {
      return 'en';
    }
  }
  return DEFAULT_LANGUAGE;
}

export function fillPlaceholders(text, params) {
  return text.replace(/\{(\w+)\}/g, (whole, name) =>
    params && params[name] !== undefined && params[name] !== null ? String(params[name]) : whole);
}

// t(key, params) for one language. A key missing from the table (a defect the tests catch)
// falls back to the default language, then to the key itself, so the page never shows blanks.
export function translator(language) {
  const table = STRINGS[language] || STRINGS[DEFAULT_LANGUAGE];
  const fallback = STRINGS[DEFAULT_LANGUAGE];
  const t = (key, params) => {
    const text = table[key] !== undefined ? table[key] : fallback[key];
    return text === undefined ? key : fillPlaceholders(text, params);
  };
  t.language = LANGUAGES.includes(language) ? language : DEFAULT_LANGUAGE;
  return t;
}
