// What the back end shows the person over a page, out of the page's reach: a question with its
// two answers ("ask"), or for a few seconds what the agent is doing and why ("intent").
//
// Both live in a closed shadow root of an element of the isolated world's making: the page
// sees only an empty element, can't read the text or reach the buttons (events it makes are not
// trusted, and ours listen only to trusted ones), and an element it removes or restyles is put
// back. A function of (kind, message, seconds): shows it and answers nothing; the answer to a
// question is read with globalThis.__nurelBanner.answer().
((kind, message, seconds) => {
  const own = globalThis.__nurelBanner || (globalThis.__nurelBanner = {
    shown: new Map(),         // kind -> { host, observer, timer }
    hosts: new WeakSet(),     // ours, for the snapshot to pass over
    answered: '',
    answer() { return this.answered; },
    showing(kind) { return this.shown.has(kind) && this.shown.get(kind).host.isConnected; },
    hide(kind) {
      const was = this.shown.get(kind);
      if (!was) return;
      was.observer.disconnect();
      clearTimeout(was.timer);
      was.host.remove();
      this.shown.delete(kind);
    },
  });
  own.hide(kind);
  if (kind === 'ask') own.answered = '';
  if (message === null) return;

  const host = document.createElement('nurel-' + kind);
  own.hosts.add(host);
  const placed = kind === 'ask'
    ? 'top:0;left:0;right:0;'
    : 'bottom:16px;left:50%;transform:translateX(-50%);max-width:80vw;pointer-events:none;';
  const style = 'all:initial !important;position:fixed !important;z-index:2147483647 !important;' +
    'display:block !important;visibility:visible !important;opacity:1 !important;' +
    placed.replace(/;/g, ' !important;');
  host.setAttribute('style', style);
  const root = host.attachShadow({ mode: 'closed' });
  const box = document.createElement('div');
  box.setAttribute('style', 'font:15px/1.4 system-ui,sans-serif;color:#fff;background:' +
    (kind === 'ask' ? '#1d4ed8' : 'rgba(17,24,39,.88)') +
    ';padding:10px 16px;display:flex;gap:12px;align-items:center;border-radius:' +
    (kind === 'ask' ? '0' : '8px') + ';box-shadow:0 2px 12px rgba(0,0,0,.3)');
  const text = document.createElement('span');
  text.setAttribute('style', 'flex:1;white-space:pre-wrap');
  text.textContent = (kind === 'ask' ? 'The agent asks you: ' : '') + message;
  box.append(text);
  if (kind === 'ask') {
    for (const [label, answer] of [['Done', 'done'], ["I can't", 'cant']]) {
      const button = document.createElement('button');
      button.textContent = label;
      button.setAttribute('style', 'font:inherit;padding:4px 14px;border-radius:6px;border:0;cursor:pointer;' +
        (answer === 'done' ? 'background:#fff;color:#1d4ed8' : 'background:#1e40af;color:#fff'));
      button.addEventListener('click', (event) => {
        if (!event.isTrusted) return;
        own.answered = answer;
        own.hide('ask');
      });
      box.append(button);
    }
  }
  root.append(box);
  // In the top layer where the browser has one, above whatever the page stacks.
  if ('popover' in host) host.setAttribute('popover', 'manual');
  const place = () => {
    if (host.getAttribute('style') !== style) host.setAttribute('style', style);
    if (host.isConnected) return;
    document.documentElement.append(host);
    if (host.showPopover) try { host.showPopover(); } catch (e) { /* shown already */ }
    if (kind === 'ask') root.querySelector('button').focus();
  };
  place();
  const observer = new MutationObserver(place);
  observer.observe(document.documentElement, { childList: true });
  observer.observe(host, { attributes: true });
  const timer = seconds > 0 ? setTimeout(() => own.hide(kind), seconds * 1000) : 0;
  own.shown.set(kind, { host, observer, timer });
})
