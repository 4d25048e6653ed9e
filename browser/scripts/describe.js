// The page in brief, for an agent that wants to know where it is before it reads or acts.
// Its headings and alerts say only what a person sees of them (page.js judges the texts).
(() => {
  const visible = (element) => {
    if (element.checkVisibility) return element.checkVisibility({ visibilityProperty: true });
    return element.getClientRects().length > 0;
  };
  const clip = (text, most) => {
    text = (text || '').replace(/\s+/g, ' ').trim();
    return text.length > most ? text.slice(0, most - 1) + '…' : text;
  };
  const nameOf = (element) => {
    const labelledBy = element.getAttribute('aria-labelledby');
    if (labelledBy) {
      const text = labelledBy.split(/\s+/).map((id) => document.getElementById(id))
        .filter(Boolean).map((found) => found.textContent).join(' ');
      if (text.trim()) return clip(text, 80);
    }
    const label = element.getAttribute('aria-label') || element.getAttribute('title') ||
      (element.labels && element.labels[0] && element.labels[0].textContent) ||
      element.getAttribute('placeholder') || element.getAttribute('alt');
    return clip(label || '', 80);
  };
  const all = (selector) => Array.from(document.querySelectorAll(selector)).filter(visible);
  const lines = [];
  lines.push('title: ' + JSON.stringify(document.title || ''));
  lines.push('address: ' + location.href);
  const language = document.documentElement && document.documentElement.lang;
  if (language) lines.push('language: ' + language);
  const links = all('a[href], [role=link]').length;
  const buttons = all('button, input[type=button], input[type=submit], input[type=reset], ' +
    'input[type=image], [role=button]').length;
  const fields = all('input:not([type=hidden]):not([type=button]):not([type=submit]):not(' +
    '[type=reset]):not([type=image]), textarea, select, [contenteditable=""], ' +
    '[contenteditable=true], [role=textbox], [role=combobox], [role=searchbox]').length;
  lines.push(`${links} links, ${buttons} buttons, ${fields} fields`);
  const landmarks = { HEADER: 'banner', NAV: 'navigation', MAIN: 'main', ASIDE: 'complementary',
    FOOTER: 'contentinfo', FORM: 'form', SECTION: 'region', SEARCH: 'search' };
  const regions = [];
  for (const element of all('header, nav, main, aside, footer, form, section, search, [role]')) {
    let role = element.getAttribute('role') || landmarks[element.tagName];
    if (!['banner', 'navigation', 'main', 'complementary', 'contentinfo', 'form', 'region',
      'search'].includes(role)) continue;
    const name = nameOf(element);
    // Unnamed forms and sections are everywhere; only named ones place things.
    if ((role === 'form' || role === 'region') && !name) continue;
    if ((element.tagName === 'HEADER' || element.tagName === 'FOOTER') &&
        !element.getAttribute('role') && element.closest('article, aside, main, nav, section') )
      continue;
    regions.push(name ? `${role} ${JSON.stringify(name)}` : role);
    if (regions.length === 30) break;
  }
  if (regions.length) lines.push('regions: ' + regions.join(', '));
  const found = all('h1, h2, h3, h4, h5, h6, [role=heading]');
  const alerting = all('[role=alert], [role=alertdialog], [aria-live=assertive], dialog[open], ' +
    '[role=dialog][aria-modal=true]');
  const seen = __nurel.seenTexts([...found, ...alerting]);
  // A heading a person can't see at all isn't one of theirs.
  const headings = found.filter((heading, i) => seen.texts[i] || !heading.textContent.trim());
  const said = new Map([...found, ...alerting].map((element, i) => [element, seen.texts[i]]));
  if (headings.length) {
    lines.push('headings:');
    for (const heading of headings.slice(0, 40)) {
      const level = /^H([1-6])$/.exec(heading.tagName);
      const depth = level ? Number(level[1]) : Number(heading.getAttribute('aria-level')) || 2;
      lines.push('  '.repeat(depth) + 'h' + depth + ' ' + clip(said.get(heading), 100));
    }
    if (headings.length > 40) lines.push(`  … and ${headings.length - 40} more`);
  }
  const focused = document.activeElement;
  if (focused && focused !== document.body && focused !== document.documentElement) {
    const role = focused.getAttribute('role') || focused.tagName.toLowerCase() +
      (focused.type ? `[type=${focused.type}]` : '');
    const name = nameOf(focused) || clip(focused.textContent, 60);
    lines.push('focus: ' + role + (name ? ' ' + JSON.stringify(name) : ''));
  }
  const alerts = alerting.map((element) => clip(said.get(element), 200)).filter(Boolean);
  if (alerts.length) lines.push('alerts: ' + alerts.slice(0, 5).map((a) => JSON.stringify(a)).join(', '));
  const scroller = document.scrollingElement || document.documentElement;
  if (scroller) {
    const height = Math.max(scroller.scrollHeight, innerHeight);
    lines.push(`scrolled ${Math.round(scrollY)} of ${Math.max(0, height - innerHeight)} px ` +
      `(the screen shows ${innerHeight} px of ${height})`);
  }
  return { text: lines.join('\n'), hidden: seen.hidden };
})()
