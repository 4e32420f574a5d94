// Reports what the page sees to the window test through the page's log channel; the entries
// land in the diagnostic log as "probe.<tag>: <value>".
window.probe = {
  report(tag, value) {
    const text = typeof value === 'string' ? value : JSON.stringify(value);
    window.webkit.messageHandlers.nativeLog.postMessage({ message: 'probe.' + tag + ': ' + text });
  },
  show(text) {
    document.getElementById('status').textContent = text;
  },
};
window.addEventListener('load', () => probe.report('loaded', location.href));
