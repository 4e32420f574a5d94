// Reports to the benchmark driver through the page's log channel:
//   bench.loaded: <epoch ms at the load event>
//   bench.roundTrip: <median ms of getSettings, page -> native -> page>
// Calls are timed in batches of fifty, since the page's clock may be coarse (1 ms).
function report(text) {
  window.webkit.messageHandlers.nativeLog.postMessage({ message: 'bench.' + text });
}

window.addEventListener('load', async () => {
  report('loaded: ' + Date.now());
  const samples = [];
  for (let i = 0; i < 20; i++) await window.__qevjs.getSettings();  // warm-up
  for (let batch = 0; batch < 40; batch++) {
    const started = performance.now();
    for (let i = 0; i < 50; i++) await window.__qevjs.getSettings();
    samples.push((performance.now() - started) / 50);
  }
  samples.sort((a, b) => a - b);
  report('roundTrip: ' + samples[Math.floor(samples.length / 2)].toFixed(4));
  document.getElementById('status').textContent = 'done';
});
