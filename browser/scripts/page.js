// The back end's helpers in a page: the page as roles and names, refs, and what actions need.
//
// Evaluated once in each document's isolated world (out of the page scripts' reach), where it
// defines globalThis.__nurel. What it keeps lives as long as the document: an element given a
// ref keeps it for the document's life, and a number is never given to another element. New
// refs are numbered from the `base` the back end passes (its count for the tab, so that numbers
// never repeat across the tab's documents), and each call says how many it gave (`used`).
(() => {
  if (globalThis.__nurel) return;
  const state = { byElement: new WeakMap(), byNumber: new Map() };
  let refs = { base: 1, used: 0 };
  const refOf = (element) => {
    let number = state.byElement.get(element);
    if (number === undefined) {
      number = refs.base + refs.used++;
      state.byElement.set(element, number);
      state.byNumber.set(number, new WeakRef(element));
    }
    return 'e' + number;
  };
  const refIfAny = (element) => {
    const number = state.byElement.get(element);
    return number === undefined ? '' : 'e' + number;
  };

  // Shadow roots: open ones the elements give; closed ones the back end finds through DevTools
  // and hands over (keepClosedRoot), for the elements closedRootHosts names.
  const closedRoots = new WeakMap();
  const shadowOf = (node) => node.shadowRoot || closedRoots.get(node) || null;
  // Elements that can hold a shadow root, besides custom elements (those with a "-").
  const hostTags = new Set(['article', 'aside', 'blockquote', 'body', 'div', 'footer', 'h1', 'h2',
    'h3', 'h4', 'h5', 'h6', 'header', 'main', 'nav', 'p', 'section', 'span']);
  // The elements not asked about before that may hold a closed root, from the last snapshot or
  // closedRootHosts(): custom elements that show, and the others that can hold one and show
  // something with no children of their own.
  const askedHosts = new WeakSet();
  let hostsToAsk = [];
  // The back end's own banners (banner.js) over the page: never part of it.
  const bannerHost = (node) => !!globalThis.__nurelBanner && globalThis.__nurelBanner.hosts.has(node);
  const mayHoldClosedRoot = (element) => {
    if (bannerHost(element)) return false;
    if (askedHosts.has(element) || hostsToAsk.length >= 500 || element.shadowRoot) return false;
    const name = element.localName;
    if (!name.includes('-')) {
      if (!hostTags.has(name)) return false;
      for (let child = element.firstChild; child; child = child.nextSibling)
        if (child.nodeType === Node.ELEMENT_NODE || child.nodeType === Node.TEXT_NODE && child.data.trim()) return false;
    }
    const box = element.getBoundingClientRect();
    if (box.width <= 0 || box.height <= 0) return false;
    askedHosts.add(element);
    hostsToAsk.push(element);
    return true;
  };
  // Walks the page for them (a snapshot finds them as it goes); their number.
  const closedRootHosts = () => {
    hostsToAsk = [];
    const visit = (root) => {
      for (const element of root.querySelectorAll('*')) {
        const inner = shadowOf(element);
        if (inner) visit(inner);
        else mayHoldClosedRoot(element);
      }
    };
    visit(document);
    return hostsToAsk.length;
  };
  const keepClosedRoot = (root) => {
    closedRoots.set(root.host, root);
    return true;
  };

  // Elements the page listens to for double clicks (the back end finds them): each reacts
  // itself, or, for a list that listens for its items (a listener set once for all rows), the
  // texts in it do.
  const doubleClicks = new WeakSet();
  const keepDoubleClicks = (found) => {
    for (const element of found) {
      if (!(element instanceof Element) || ['html', 'body'].includes(element.localName)) continue;
      if (!element.matches('ul, ol, table, tbody, [role=list], [role=grid], [role=listbox]')) {
        // One that holds blocks of its own (an app's root, where a framework listens for
        // everything) says nothing of what in it reacts.
        if (!element.querySelector('p, div, section, article, main, header, footer, nav, form, ul, ol, table, h1, h2, h3, h4, h5, h6'))
          doubleClicks.add(element);
        continue;
      }
      let count = 0;
      for (const inner of element.querySelectorAll('*')) {
        if (count >= 200) break;
        if (inner.children.length || !squash(inner.textContent) || widgets.has(roleOf(inner))) continue;
        doubleClicks.add(inner);
        ++count;
      }
    }
    return true;
  };
  const squash = (text) => (text || '').replace(/\s+/g, ' ').trim();
  // "Words:" and "12,345" as "Words: 12,345".
  const labelled = (term, value) => !value ? term : /[:：]$/.test(term) ? term + ' ' + value :
    term + ': ' + value;
  // Cut at a word's end, so that no figure or name is cut through.
  const clip = (text, most) => {
    if (text.length <= most) return text;
    const cut = text.slice(0, most - 1);
    const space = cut.lastIndexOf(' ');
    return (space > most / 2 ? cut.slice(0, space) : cut) + '…';
  };
  const landmarks = new Set(['banner', 'navigation', 'main', 'complementary', 'contentinfo',
    'search', 'form', 'region', 'dialog', 'alertdialog']);
  const widgets = new Set(['button', 'link', 'textbox', 'searchbox', 'checkbox', 'radio',
    'combobox', 'listbox', 'option', 'slider', 'spinbutton', 'switch', 'tab', 'menuitem',
    'menuitemcheckbox', 'menuitemradio', 'treeitem', 'gridcell', 'scrollbar']);
  // Roles named by their content: their text is their name and is not repeated under them.
  const namedByContent = new Set(['button', 'link', 'heading', 'tab', 'menuitem', 'option',
    'treeitem', 'cell', 'columnheader', 'rowheader', 'checkbox', 'radio', 'switch',
    'menuitemcheckbox', 'menuitemradio', 'legend', 'caption', 'gridcell']);

  const sectioned = (element) => !!element.parentElement &&
    !!element.parentElement.closest('article, aside, main, nav, section');
  // A row of headers only (a table without thead) heads its columns.
  const headerRow = (cell) => cell.scope !== 'row' && !!cell.parentElement && cell.parentElement.localName === 'tr' &&
    Array.from(cell.parentElement.cells).every((other) => other.localName === 'th') && cell.parentElement.cells.length > 1;
  const implicitRole = (element) => {
    const tag = element.localName;
    switch (tag) {
      case 'a': case 'area': return element.hasAttribute('href') ? 'link' : '';
      case 'button': return 'button';
      case 'input': {
        const type = (element.getAttribute('type') || 'text').toLowerCase();
        if (type === 'hidden') return 'none';
        // A file field is a button that opens a chooser: upload gives it files.
        if (['button', 'submit', 'reset', 'image', 'file'].includes(type)) return 'button';
        if (type === 'checkbox') return 'checkbox';
        if (type === 'radio') return 'radio';
        if (type === 'range') return 'slider';
        if (type === 'number') return 'spinbutton';
        if (type === 'search') return element.hasAttribute('list') ? 'combobox' : 'searchbox';
        if (['color', 'date', 'datetime-local', 'month', 'time', 'week'].includes(type))
          return 'textbox';
        return element.hasAttribute('list') ? 'combobox' : 'textbox';
      }
      case 'textarea': return 'textbox';
      case 'select': return element.multiple || element.size > 1 ? 'listbox' : 'combobox';
      case 'option': return 'option';
      case 'img': return element.getAttribute('alt') === '' ? 'none' : 'img';
      case 'svg': return element.getAttribute('aria-label') ? 'img' : '';
      case 'h1': case 'h2': case 'h3': case 'h4': case 'h5': case 'h6': return 'heading';
      case 'ul': case 'ol': case 'menu': return 'list';
      case 'li': return 'listitem';
      case 'nav': return 'navigation';
      case 'main': return 'main';
      case 'aside': return 'complementary';
      case 'header': return sectioned(element) ? '' : 'banner';
      case 'footer': return sectioned(element) ? '' : 'contentinfo';
      case 'form': return 'form';
      case 'search': return 'search';
      case 'section': return 'region';
      case 'article': return 'article';
      case 'dialog': return 'dialog';
      case 'table': return 'table';
      case 'tr': return 'row';
      case 'td': return 'cell';
      case 'th': return element.closest('thead') || element.scope === 'col' || headerRow(element) ? 'columnheader' : 'rowheader';
      case 'fieldset': return 'group';
      case 'legend': return 'legend';
      case 'caption': return 'caption';
      case 'details': return 'group';
      case 'summary': return 'button';
      case 'hr': return 'separator';
      case 'progress': return 'progressbar';
      case 'meter': return 'meter';
      case 'p': return 'paragraph';
      case 'iframe': case 'frame': return 'iframe';
      case 'video': return 'video';
      case 'audio': return 'audio';
      default: return '';
    }
  };
  const roleOf = (element) => {
    const explicit = (element.getAttribute('role') || '').trim().split(/\s+/)[0];
    if (explicit && explicit !== 'generic') return explicit === 'presentation' ? 'none' : explicit;
    const role = implicitRole(element);
    if (role) return role;
    if (element.isContentEditable && (!element.parentElement || !element.parentElement.isContentEditable))
      return 'textbox';
    return '';
  };

  const textOf = (node, skip, naming) => {
    // What a person sees of an element's text: visible descendants only; of a dropdown, what
    // it shows (the chosen option); nothing of `skip` (the field a label names). `naming`: as
    // the name of a control, with the texts drawn but hidden in it (an icon button's visually
    // hidden words).
    let out = '';
    for (const child of node.childNodes) {
      if (child.nodeType === Node.TEXT_NODE) {
        if (naming || !child.data.trim() || seen(child)) out += child.data;
      } else if (child.nodeType === Node.ELEMENT_NODE && child !== skip && shown(child)) {
        const tag = child.localName;
        if (tag === 'img') out += ' ' + (child.getAttribute('alt') || '') + ' ';
        else if (tag === 'select') out += ' ' + Array.from(child.selectedOptions || []).map((o) => o.textContent).join(' ') + ' ';
        else if (tag !== 'script' && tag !== 'style' && tag !== 'template') out += ' ' + textOf(child, skip, naming) + ' ';
      }
    }
    if (shadowOf(node)) out += ' ' + textOf(shadowOf(node), skip, naming);
    return out;
  };
  // A control's name from what it holds, hidden words included as accessibility tools take
  // them; cut at 100 characters where some were hidden (which only a longer one needs asking).
  const nameFrom = (node, skip) => {
    const text = squash(textOf(node, skip, true));
    if (text.length <= 100) return text;
    const walker = document.createTreeWalker(node, NodeFilter.SHOW_TEXT);
    for (let inner = walker.nextNode(); inner; inner = walker.nextNode())
      if (inner.data.trim() && whyHidden(inner)) return clip(text, 100);
    return text;
  };
  const byIds = (ids) => ids.split(/\s+/).map((id) => document.getElementById(id)).filter(Boolean)
    .map((found) => squash(found.textContent)).join(' ');
  // The name an element is given rather than what it says: aria-labelledby, aria-label, title.
  const ownLabel = (element) => {
    const labelledBy = element.getAttribute('aria-labelledby');
    return (labelledBy && byIds(labelledBy)) || squash(element.getAttribute('aria-label')) ||
      squash(element.getAttribute('title'));
  };
  const nameOf = (element, role) => givenName(element, role) || contextName(element, role);
  // What CSS writes into an element (content of ::before and ::after), without icon fonts'
  // private characters.
  const generated = (element) => {
    let out = '';
    for (const part of ['::before', '::after']) {
      const content = getComputedStyle(element, part).content;
      if (!content || content === 'none' || content === 'normal') continue;
      for (const [, text] of content.matchAll(/"((?:[^"\\]|\\.)*)"/g)) out += ' ' + text.replace(/\\(.)/g, '$1');
    }
    return squash(out.replace(/[\ue000-\uf8ff]/g, ''));
  };
  // A control that says nothing itself is named by what stands for it: the text CSS puts in
  // it, an icon's title, else the text of the row or list item it is in, as a person reads
  // "walk the dog" beside its box.
  const contextName = (element, role) => {
    if (!(widgets.has(role) || clickable(element))) return '';
    for (const inner of [element, ...element.querySelectorAll('*')].slice(0, 20)) {
      if (inner !== element && !shown(inner)) continue;
      const said = generated(inner) || (inner !== element && squash(inner.getAttribute('aria-label') || inner.getAttribute('title'))) ||
        (inner.localName === 'svg' && squash(inner.querySelector(':scope > title') && inner.querySelector(':scope > title').textContent));
      if (said) return said;
    }
    // Only a control takes its row's words: something merely clickable in a list item (a
    // reference's back link) would say the item again.
    const row = widgets.has(role) && element.parentElement &&
      element.parentElement.closest('li, tr, [role=row], [role=listitem]');
    return row ? clip(squash(textOf(row, element)), 80) : '';
  };
  const givenName = (element, role) => {
    const labelledBy = element.getAttribute('aria-labelledby');
    if (labelledBy) {
      const text = byIds(labelledBy);
      if (text) return text;
    }
    const label = squash(element.getAttribute('aria-label'));
    if (label) return label;
    const tag = element.localName;
    if (tag === 'input' || tag === 'textarea' || tag === 'select' || tag === 'meter' || tag === 'progress') {
      const type = (element.getAttribute('type') || '').toLowerCase();
      if (['button', 'submit', 'reset'].includes(type))
        return squash(element.value) || (type === 'submit' ? 'Submit' : type === 'reset' ? 'Reset' : '');
      if (type === 'image') return squash(element.getAttribute('alt')) || 'Submit';
      const labels = element.labels ? Array.from(element.labels).map((l) => nameFrom(l, element)).join(' ') : '';
      if (labels) return labels;
      return squash(element.getAttribute('placeholder') || element.getAttribute('title'));
    }
    if (tag === 'img' || tag === 'area') return squash(element.getAttribute('alt') || element.getAttribute('title'));
    if (tag === 'fieldset') {
      const legend = element.querySelector(':scope > legend');
      if (legend) return squash(textOf(legend));
    }
    if (tag === 'table') {
      const caption = element.querySelector(':scope > caption');
      if (caption) return squash(textOf(caption));
    }
    if (tag === 'iframe' || tag === 'frame') return squash(element.getAttribute('title') || element.getAttribute('name'));
    if (namedByContent.has(role) || clickable(element)) {
      const text = widgets.has(role) || clickable(element) ? nameFrom(element) : squash(textOf(element));
      if (text) return text;
    }
    return squash(element.getAttribute('title'));
  };

  // Whether a person can see a text. A snapshot, find, describe and text each judge the texts
  // they read with one `sight`, which keeps what it learns of elements for the walk: their
  // styles, boxes, the clipping around them and the colour painted behind them. Cheap checks
  // first (styles and boxes); the contrast and what lies on top only for what passed them, and
  // what lies on top only on the screen, where hit-testing works.
  let sight = null;
  const newSight = () => ({ styles: new Map(), boxes: new Map(), clips: new Map(), gone: new Map(),
    paints: new Map(), judged: new Map(), own: new Map(), indents: new Map(), positions: new Map(),
    holders: new Map(), fills: new Map(), left: new Set() });
  // An element judged for its own alt rather than for its texts is kept apart.
  const alone = new WeakMap();
  const aloneKey = (element) => {
    let key = alone.get(element);
    if (!key) alone.set(element, key = {});
    return key;
  };
  const styleOf = (element) => {
    let style = sight.styles.get(element);
    if (!style) sight.styles.set(element, style = element.ownerDocument.defaultView.getComputedStyle(element));
    return style;
  };
  const positionOf = (element) => {
    let position = sight.positions.get(element);
    if (!position) sight.positions.set(element, position = styleOf(element).position);
    return position;
  };
  // Where a text's box is measured: its element, or for an inline one (which flows in its
  // block's lines, and which neither transforms nor sizes move) the block it flows in. Boxes
  // cost: a paragraph of twenty links is measured once.
  const holderOf = (element) => {
    let holder = sight.holders.get(element);
    if (holder) return holder;
    const up = upOf(element);
    holder = up && styleOf(element).display === 'inline' && positionOf(element) === 'static' &&
      element.localName !== 'br' ? holderOf(up) : element;
    sight.holders.set(element, holder);
    return holder;
  };
  const boxOf = (element) => {
    let box = sight.boxes.get(element);
    if (!box) sight.boxes.set(element, box = element.getBoundingClientRect());
    return box;
  };
  // The element around another on the screen: across shadow roots and into slots.
  const upOf = (element) => element.assignedSlot || element.parentElement ||
    (element.parentNode && element.parentNode.host) || null;
  // rgba() of a computed colour: [r, g, b, a], or null for what isn't one (a colour-mix, say).
  const rgba = (colour) => {
    const found = /^rgba?\(([\d.]+),\s*([\d.]+),\s*([\d.]+)(?:,\s*([\d.]+))?\)$/.exec(colour);
    return found ? [Number(found[1]), Number(found[2]), Number(found[3]), found[4] === undefined ? 1 : Number(found[4])] : null;
  };
  // Whether an element and all within it are clipped to nothing: clip: rect() of no area, a
  // clip-path that leaves nothing (inset(100%), circle(0)).
  const clippedAway = (element) => {
    let gone = sight.gone.get(element);
    if (gone !== undefined) return gone;
    const style = styleOf(element);
    gone = false;
    const path = style.clipPath;
    if (path && path !== 'none') {
      const inset = /^inset\(([^)]*)\)/.exec(path);
      if (inset) {
        const sides = inset[1].split(/\s+round\s+/)[0].trim().split(/\s+/).map((side) => (side.endsWith('%') ? parseFloat(side) : NaN));
        const [top, right = top, bottom = top, left = right] = sides;
        gone = top + bottom >= 100 || left + right >= 100;
      } else {
        gone = /^(circle|ellipse)\(0px[\s)]/.test(path);
      }
    }
    // clip works on absolutely positioned boxes only.
    const position = positionOf(element);
    if (!gone && (position === 'absolute' || position === 'fixed') && style.clip !== 'auto') {
      const sides = (style.clip.match(/-?[\d.]+px/g) || []).map(parseFloat);
      gone = sides.length === 4 && (sides[2] <= sides[0] || sides[1] <= sides[3]);
    }
    if (!gone) {
      const up = upOf(element);
      gone = !!up && clippedAway(up);
    }
    sight.gone.set(element, gone);
    return gone;
  };
  // What the boxes around an element let show of what it holds: { left, top, right, bottom }
  // in the viewport (edges with no clip are infinite), from the boxes with overflow hidden or
  // clip on its way up through its containing blocks. Inside a box that scrolls, what lies
  // outside it is there to scroll to: `scrolls`, and no clip from further up. The page's own
  // html and body clip nothing: their overflow is the window's.
  const open = { left: -Infinity, top: -Infinity, right: Infinity, bottom: Infinity, scrolls: false };
  const clipOf = (element) => {
    let clip = sight.clips.get(element);
    if (clip) return clip;
    const style = styleOf(element);
    const position = positionOf(element);
    let holder = null;
    if (position === 'absolute') {
      for (holder = upOf(element); holder && holder !== holder.ownerDocument.documentElement &&
           positionOf(holder) === 'static' && styleOf(holder).transform === 'none'; holder = upOf(holder));
    } else if (position !== 'fixed') {
      holder = upOf(element);
    }
    clip = holder ? clipOf(holder) : open;
    const document = element.ownerDocument;
    if (element !== document.documentElement && element !== document.body) {
      const overflow = style.overflow.split(' ');
      const x = overflow[0], y = overflow[1] || overflow[0];
      if (x !== 'visible' || y !== 'visible') {
        if (x === 'auto' || x === 'scroll' || y === 'auto' || y === 'scroll') {
          clip = { ...open, scrolls: true };
        } else {
          clip = { ...clip };
        }
        const box = boxOf(element);
        if (x === 'hidden' || x === 'clip') {
          clip.left = Math.max(clip.left, box.left);
          clip.right = Math.min(clip.right, box.right);
        }
        if (y === 'hidden' || y === 'clip') {
          clip.top = Math.max(clip.top, box.top);
          clip.bottom = Math.min(clip.bottom, box.bottom);
        }
      }
    }
    sight.clips.set(element, clip);
    return clip;
  };
  // The colour painted behind an element's content, [r, g, b] after blending the background
  // colours under it down to the first opaque one (the page's white at the bottom). Pictures
  // among them are looked for only where the colours say a text can't be seen (overOther).
  const paintOf = (element) => {
    let paint = sight.paints.get(element);
    if (paint !== undefined) return paint;
    const colour = rgba(styleOf(element).backgroundColor) || [0, 0, 0, 0];
    if (colour[3] >= 1) {
      paint = colour.slice(0, 3);
    } else {
      const up = upOf(element);
      const under = up ? paintOf(up) : [255, 255, 255];
      paint = [0, 1, 2].map((i) => colour[i] * colour[3] + under[i] * (1 - colour[3]));
    }
    sight.paints.set(element, paint);
    return paint;
  };
  // The colour a text is painted in: -webkit-text-fill-color, which is its colour unless set.
  const fillsOf = (element) => {
    let fill = sight.fills.get(element);
    if (fill === undefined) {
      const style = styleOf(element);
      sight.fills.set(element, fill = rgba(style.webkitTextFillColor || style.color));
    }
    return fill;
  };
  // Whether a background shows through the text's letters (background-clip: text), as in
  // headings painted with a gradient: then its colour says nothing.
  const clippedText = (element) => {
    for (let up = element; up; up = upOf(up)) {
      const style = styleOf(up);
      if (style.backgroundClip === 'text' || style.webkitBackgroundClip === 'text') return true;
    }
    return false;
  };
  // Whether what is painted behind a text may be something other than the background colours
  // of what holds it: a background picture of theirs, or a picture the text is laid over (on
  // the screen, anything under it at its centre that doesn't hold it; elsewhere, a positioned
  // element on the way to the background).
  const overOther = (element, box) => {
    for (let up = element; up; up = upOf(up)) {
      const style = styleOf(up);
      if (style.backgroundImage !== 'none') return true;
      if ((rgba(style.backgroundColor) || [0, 0, 0, 0])[3] >= 1) break;
    }
    const view = element.ownerDocument.defaultView;
    const x = (box.left + box.right) / 2, y = (box.top + box.bottom) / 2;
    if (x >= 0 && y >= 0 && x < view.innerWidth && y < view.innerHeight) {
      // From the text's element, or what holds it where the point falls beside its words.
      const stack = element.ownerDocument.elementsFromPoint(x, y);
      const at = stack.findIndex((under) => within(under, element));
      return at < 0 || stack.slice(at + 1).some((under) => !within(under, element));
    }
    for (let up = element; up; up = upOf(up)) {
      const style = styleOf(up);
      if ((rgba(style.backgroundColor) || [0, 0, 0, 0])[3] >= 1) return false;
      if (style.position !== 'static') return true;
    }
    return false;
  };
  const luminance = (colour) => {
    const [r, g, b] = colour.map((v) => {
      const c = v / 255;
      return c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4;
    });
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  // Whether something opaque lies over the box at all of its centre and corners. Only on the
  // screen: elementFromPoint sees nothing else.
  const coveredAt = (element, box) => {
    const view = element.ownerDocument.defaultView;
    if (box.left < 0 || box.top < 0 || box.right > view.innerWidth || box.bottom > view.innerHeight ||
        box.width < 2 || box.height < 2) return false;
    const points = [[(box.left + box.right) / 2, (box.top + box.bottom) / 2], [box.left + 1, box.top + 1],
      [box.right - 1, box.top + 1], [box.left + 1, box.bottom - 1], [box.right - 1, box.bottom - 1]];
    for (const [x, y] of points) {
      let hit = element.ownerDocument.elementFromPoint(x, y);
      while (hit && shadowOf(hit)) {
        const inner = shadowOf(hit).elementFromPoint(x, y);
        if (!inner || inner === hit) break;
        hit = inner;
      }
      if (!hit || within(element, hit) || within(hit, element)) return false;
      // What is on top shows the text through unless something of it, up to what holds both,
      // is opaque: a background colour, a picture that loaded (not a spacer of one pixel, which
      // pages stretch over things and is clear), a video.
      // A bar fixed to the window (a header that stays on top) hides a text only until the
      // page is scrolled under it, however small the window: only one that fills its height
      // covers for good.
      let opaque = false;
      for (let over = hit; over && !within(over, element); over = upOf(over)) {
        const position = positionOf(over);
        if ((position === 'fixed' || position === 'sticky') && boxOf(over).height < view.innerHeight) return false;
        const colour = rgba(styleOf(over).backgroundColor);
        if (!opaque && ((colour && colour[3] >= 1) || over.localName === 'video' ||
            (over.localName === 'img' && over.complete && over.naturalWidth > 1 && over.naturalHeight > 1)))
          opaque = true;
      }
      if (!opaque) return false;
    }
    return true;
  };
  // The box of a text: its element's (or the block's it flows in), or, where that says nothing
  // of where the text is (a box of no area, or text moved by text-indent), its own lines'.
  const textBox = (node, element) => {
    const box = boxOf(holderOf(element));
    let indent = sight.indents.get(element);
    if (indent === undefined) sight.indents.set(element, indent = styleOf(element).textIndent !== '0px');
    if (box.width > 0 && box.height > 0 && !indent) return box;
    const range = element.ownerDocument.createRange();
    range.selectNodeContents(node);
    let left = Infinity, top = Infinity, right = -Infinity, bottom = -Infinity;
    for (const line of range.getClientRects()) {
      if (line.width <= 0 && line.height <= 0) continue;
      left = Math.min(left, line.left);
      top = Math.min(top, line.top);
      right = Math.max(right, line.right);
      bottom = Math.max(bottom, line.bottom);
    }
    if (left === Infinity) return { left: 0, top: 0, right: 0, bottom: 0, width: 0, height: 0 };
    return { left, top, right, bottom, width: right - left, height: bottom - top };
  };
  // Why a person can't see a text node (or an element's own text, its alt), or '' when they
  // can: 'unrendered' for what has no box at all (display: none, visibility: hidden, a closed
  // details, content-visibility: hidden), and otherwise the family that hides it.
  const whyHidden = (node) => {
    if (!sight) return withSight(() => whyHidden(node));
    let why = sight.judged.get(node);
    if (why !== undefined) return why;
    why = judge(node);
    sight.judged.set(node, why);
    return why;
  };
  // What of the judgement an element's texts share: its style alone, and what is around it.
  const ownWhy = (element, text) => {
    const key = text ? element : aloneKey(element);
    let why = sight.own.get(key);
    if (why !== undefined) return why;
    const style = styleOf(element);
    why = '';
    // An element whose content-visibility is hidden draws its box, not what it holds.
    if (!element.checkVisibility({ visibilityProperty: true, opacityProperty: true }))
      why = element.checkVisibility({ visibilityProperty: true }) ? 'transparent' : 'unrendered';
    else if (text && style.contentVisibility === 'hidden') why = 'unrendered';
    else if (text && (fillsOf(element) || [0, 0, 0, 1])[3] === 0 && !clippedText(element)) why = 'transparent';
    else if (text && parseFloat(style.fontSize) < 4) why = 'small';
    else if (clippedAway(element)) why = 'clipped';
    sight.own.set(key, why);
    return why;
  };
  const judge = (node) => {
    const text = node.nodeType === Node.TEXT_NODE;
    let element = text ? node.parentElement || (node.parentNode && node.parentNode.host) : node;
    if (!element) return '';
    // The body of a closed details isn't drawn, its loose texts no more than its elements.
    if (text && element.localName === 'details' && !element.open) return 'unrendered';
    let own = ownWhy(element, text);
    // display: contents has no box of its own: its text is judged by what holds it.
    while (own === 'unrendered' && styleOf(element).display === 'contents' && upOf(element)) {
      element = upOf(element);
      own = ownWhy(element, text);
    }
    if (own) return own;
    const style = styleOf(element);
    const colour = fillsOf(element);
    const box = text ? textBox(node, element) : boxOf(element);
    // Scaled to nothing, or a box of no area that clips what it holds.
    if (box.width <= 0 || box.height <= 0) return 'small';
    const clip = clipOf(element);
    if (box.right <= clip.left || box.left >= clip.right || box.bottom <= clip.top || box.top >= clip.bottom)
      return 'clipped';
    const view = element.ownerDocument.defaultView;
    if (!clip.scrolls && (box.right + view.scrollX <= 0 || box.bottom + view.scrollY <= 0)) return 'off the page';
    if (text && colour) {
      const behind = paintOf(element);
      if (behind) {
        const seen = [0, 1, 2].map((i) => colour[i] * colour[3] + behind[i] * (1 - colour[3]));
        const [light, dark] = [luminance(seen), luminance(behind)].sort((a, b) => b - a);
        if ((light + 0.05) / (dark + 0.05) < 1.2 && style.textShadow === 'none' &&
            parseFloat(style.webkitTextStrokeWidth || '0') === 0 && !clippedText(element) && !overOther(element, box))
          return 'no contrast';
      }
    }
    if (coveredAt(element, box)) return 'covered';
    return '';
  };
  // What a hidden text names, if anything: the control it is in, or the field its label is
  // for. Such a text stays as that control's name.
  const namer = 'a[href], button, summary, label, select, [role=button], [role=link], [role=tab], ' +
    '[role=menuitem], [role=option], [role=checkbox], [role=radio], [role=switch], [role=treeitem]';
  const names = (node) => {
    const element = node.nodeType === Node.TEXT_NODE ? node.parentElement : node;
    const control = element && element.closest(namer);
    return !!control && (control.localName !== 'label' || !!control.control);
  };
  // Whether a text is one a person sees; one that was drawn but can't be seen, and names
  // nothing, counts as left out. (What isn't drawn at all, a menu closed with display: none,
  // is what every page holds, and isn't counted.)
  const seen = (node) => {
    if (!sight) return withSight(() => seen(node));
    const why = whyHidden(node);
    if (!why) return true;
    if (why !== 'unrendered' && !names(node)) sight.left.add(node);
    return false;
  };
  const leftOut = () => sight.left.size;
  // Runs `read` with a sight of its own, unless one is going.
  const withSight = (read) => {
    if (sight) return read();
    sight = newSight();
    try {
      return read();
    } finally {
      sight = null;
    }
  };

  const shown = (element) => {
    if (element.getAttribute && element.getAttribute('aria-hidden') === 'true') return false;
    if (element.localName === 'slot' || element.localName === 'option' ||
        element.localName === 'optgroup') return true;
    if (element.checkVisibility) {
      if (!element.checkVisibility({ visibilityProperty: true, opacityProperty: false })) {
        // display: contents has no box but its children do.
        return getComputedStyle(element).display === 'contents';
      }
      return true;
    }
    return element.getClientRects().length > 0;
  };
  const clickable = (element) => {
    if (element.hasAttribute('onclick') || element.hasAttribute('onmousedown') || doubleClicks.has(element)) return true;
    const tabindex = element.getAttribute('tabindex');
    if (tabindex !== null && Number(tabindex) >= 0) return true;
    if (element.isContentEditable) return true;
    // What the page lets be dragged is there to drag.
    if (element.getAttribute('draggable') === 'true') return true;
    const style = sight ? styleOf(element) : getComputedStyle(element);
    if (style.cursor === 'pointer') {
      // Only where the pointer starts: not every child of a link or a button.
      const parent = element.parentElement;
      return !parent || (sight ? styleOf(parent) : getComputedStyle(parent)).cursor !== 'pointer';
    }
    return false;
  };
  // Clickable only by its pointer cursor: no handler in its attributes, not focusable, not editable.
  const pointerOnly = (element) => !element.hasAttribute('onclick') && !element.hasAttribute('onmousedown') &&
    !(Number(element.getAttribute('tabindex') ?? -1) >= 0) && !element.isContentEditable;
  const meets = (box) => box.bottom > 0 && box.right > 0 && box.top < innerHeight && box.left < innerWidth &&
    (box.width > 0 || box.height > 0);
  // Whether any box of the element (an inline one may take several lines) is on the screen.
  const onScreen = (element) => {
    if (!meets(element.getBoundingClientRect())) return false;
    const boxes = element.getClientRects();
    for (const box of boxes) if (meets(box)) return true;
    return boxes.length === 0;
  };
  // A text's own lines, where its element lies across the screen's edge.
  const textOnScreen = (node) => {
    const parent = node.parentElement;
    if (parent) {
      const box = parent.getBoundingClientRect();
      if (!meets(box)) return false;
      if (box.top >= 0 && box.left >= 0 && box.bottom <= innerHeight && box.right <= innerWidth) return true;
    }
    const range = document.createRange();
    range.selectNodeContents(node);
    for (const box of range.getClientRects()) if (meets(box)) return true;
    return false;
  };
  // The last line of a viewport snapshot: where the screen is in the page, and how to see more.
  const whereTheScreenIs = () => {
    const scroller = document.scrollingElement || document.documentElement;
    const height = Math.max(innerHeight, Math.round(scroller ? scroller.scrollHeight : 0));
    const top = Math.round(scrollY), bottom = Math.min(height, top + innerHeight);
    if (top <= 0 && bottom >= height) return '[the whole page is on the screen]';
    const amount = (px) => px <= 0 ? 'nothing' : px.toLocaleString('en') + ' px' +
      (px >= innerHeight ? ' (' + Math.round(px / innerHeight) + (px < 1.5 * innerHeight ? ' screen)' : ' screens)') : '');
    return '[the screen shows ' + top.toLocaleString('en') + ' to ' + bottom.toLocaleString('en') + ' of ' +
      height.toLocaleString('en') + ' px: ' + amount(top) + ' above, ' + amount(height - bottom) +
      ' below; scroll to see more, or take a full snapshot]';
  };

  const statesOf = (element, role) => {
    const states = [];
    const aria = (name) => element.getAttribute('aria-' + name);
    const tag = element.localName;
    if (role === 'heading') {
      const level = /^h([1-6])$/.exec(tag);
      states.push('level=' + (level ? level[1] : aria('level') || 2));
    }
    if (role === 'checkbox' || role === 'radio' || role === 'switch' || role === 'menuitemcheckbox' ||
        role === 'menuitemradio') {
      const checked = 'checked' in element && tag === 'input' ? element.checked : aria('checked') === 'true';
      if (checked) states.push('checked');
      if (tag === 'input' && element.indeterminate || aria('checked') === 'mixed') states.push('mixed');
    }
    if (doubleClicks.has(element)) states.push('double-click');
    if (aria('pressed') === 'true') states.push('pressed');
    if (aria('expanded') === 'true' || tag === 'details' && element.open) states.push('expanded');
    else if (aria('expanded') === 'false') states.push('collapsed');
    if (role === 'option' ? element.selected || aria('selected') === 'true' : aria('selected') === 'true')
      states.push('selected');
    if (element.disabled || aria('disabled') === 'true') states.push('disabled');
    if (element.required || aria('required') === 'true') states.push('required');
    if (element.readOnly && (tag === 'input' || tag === 'textarea')) states.push('readonly');
    if (role === 'link' && !terse) {
      const href = element.getAttribute('href');
      if (href && !href.startsWith('javascript:')) {
        // The page's own addresses without the origin every one of them shares.
        let shown = href;
        try {
          const target = new URL(href, document.baseURI);
          // Parameters that only say where a click came from, for the site's own counting.
          for (const key of [...target.searchParams.keys()])
            if (/^(utm_|source$|ref_src$|ref$|fbclid$|gclid$|mc_|_hs)/.test(key)) target.searchParams.delete(key);
          // Another site's addresses without https://, which navigate puts back, as a browser's
          // address bar shows them.
          shown = target.origin === location.origin ? target.pathname + target.search + target.hash
            : target.protocol === 'https:' && !target.username ? target.href.slice('https://'.length)
            : target.href;
          if (shown !== href && !target.search && href.endsWith('?')) shown += '?';
          // A long query (a sign-in's way back, say) is begun, not spelled out: inspect has it.
          if (target.search.length > 40 && !target.hash) shown = shown.slice(0, shown.length - target.search.length) + clip(target.search, 40);
        } catch (e) {
          // Not an address: as written.
        }
        states.push('url=' + clip(shown, 100));
      }
    }
    if (tag === 'input' || tag === 'textarea') {
      const type = (element.getAttribute('type') || '').toLowerCase();
      if (type === 'password') {
        if (element.value) states.push('value=••••');
      } else if (!['checkbox', 'radio', 'button', 'submit', 'reset', 'image', 'file'].includes(type) &&
                 element.value) {
        states.push('value=' + JSON.stringify(clip(element.value, 100)));
      }
    } else if (tag === 'select') {
      const chosen = Array.from(element.selectedOptions || []).map((o) => squash(o.textContent));
      if (chosen.length) states.push('value=' + JSON.stringify(clip(chosen.join(', '), 100)));
    } else if (element.isContentEditable && role === 'textbox') {
      const text = squash(element.innerText);
      if (text) states.push('value=' + JSON.stringify(clip(text, 100)));
    } else if (role === 'slider' || role === 'spinbutton' || role === 'progressbar' || role === 'meter') {
      const now = aria('valuenow') || element.value;
      if (now !== undefined && now !== null && now !== '') states.push('value=' + now);
    }
    return states;
  };


  // The page as lines of roles and names.
  //   mode: "full", "interactive" (what can be acted on, with the headings and landmarks that
  //   place it) or "viewport" (only what is on the screen).
  let lastActionable = [];
  // Interactive snapshots leave out links' addresses: what to act on, not where it leads.
  let terse = false;
  // The iframes of the last snapshot whose documents this world cannot read, by number.
  let frameOwners = [];
  const snapshot = (mode, base) => withSight(() => snapshotWith(mode, base));
  const snapshotWith = (mode, base) => {
    refs = { base, used: 0 };
    lastActionable = [];
    frameOwners = [];
    hostsToAsk = [];
    terse = mode === 'interactive';
    // Builds the tree: {role, name, states, ref, children, text}.
    const interactiveOnly = mode === 'interactive';
    const viewportOnly = mode === 'viewport';
    const childNodesOf = (node) => {
      if (shadowOf(node)) return Array.from(shadowOf(node).childNodes);
      if (node.localName === 'slot') {
        const assigned = node.assignedNodes({ flatten: true });
        if (assigned.length) return assigned;
      }
      if ((node.localName === 'iframe' || node.localName === 'frame')) {
        try {
          const inner = node.contentDocument;
          if (inner) return inner.body ? [inner.body] : [];
        } catch (e) {
          // Another origin's document: not ours to read from here.
        }
        // Another origin's document (in this process or another): its own world reads it, and
        // the back end puts what it says here.
        return [{ frameOwner: node }];
      }
      return Array.from(node.childNodes);
    };
    // In viewport mode: the last heading of each level that lies above the screen, to place
    // what is on it.
    const placing = [];
    const build = (node, out) => {
      if (node.frameOwner) {
        if (!viewportOnly || onScreen(node.frameOwner)) out.push({ frame: frameOwners.push(node.frameOwner) - 1 });
        return;
      }
      if (node.nodeType === Node.TEXT_NODE) {
        const text = squash(node.data);
        if (text && !interactiveOnly && (!viewportOnly || textOnScreen(node)) && seen(node)) out.push({ text });
        return;
      }
      if (node.nodeType !== Node.ELEMENT_NODE && node.nodeType !== Node.DOCUMENT_FRAGMENT_NODE) return;
      if (node.nodeType === Node.ELEMENT_NODE) {
        const tag = node.localName;
        if (['script', 'style', 'noscript', 'template', 'head', 'meta', 'link', 'title'].includes(tag)) return;
        if (!shown(node) || bannerHost(node)) return;
        if (!closedRoots.has(node)) mayHoldClosedRoot(node);
        if (tag === 'select') {
          // A closed dropdown: its options are what can be chosen.
          const role = roleOf(node);
          const item = { role, name: nameOf(node, role), states: statesOf(node, role), ref: refOf(node), children: [] };
        lastActionable.push(node);
          if (!viewportOnly || onScreen(node)) out.push(item);
          return;
        }
      }
      const element = node.nodeType === Node.ELEMENT_NODE ? node : null;
      let role = element ? roleOf(element) : '';
      if (role === 'none' && element && element.localName === 'input') return;
      if (role === 'none') role = '';
      const scriptOnly = element && !widgets.has(role) && clickable(element);
      if (scriptOnly && !role) role = 'clickable';
      let actionable = element && (widgets.has(role) || scriptOnly || role === 'clickable');
      const children = [];
      for (const child of childNodesOf(node)) build(child, children);
      // A card: something that only shows the pointer, around a link it takes the click to. The
      // link is what to click; the card is dissolved like any wrapper.
      if (role === 'clickable' && pointerOnly(element) && holdsLink(children)) {
        role = '';
        actionable = false;
      }
      if (!element) {
        out.push(...children);
        return;
      }
      if (viewportOnly && !onScreen(element)) {
        // Off the screen: only what of it shows (a menu that hangs out of its bar), in place.
        if (role === 'heading' && children.length === 0 && element.getBoundingClientRect().bottom <= 0) {
          const level = Number(statesOf(element, role)[0].slice('level='.length)) || 2;
          placing.length = Math.min(placing.length, level - 1);
          placing[level - 1] = { role, name: clip(nameOf(element, role), 150), states: ['level=' + level], children: [] };
        }
        if (!children.length) return;
        if (actionable || !role) {
          out.push(...children);
          return;
        }
      }
      let name = role ? nameOf(element, role) : '';
      // Something clickable by script around links or buttons (a card) is named by its own
      // label only: its content is said by what it holds, each with its own ref.
      if (role === 'clickable' && holdsRefs(children)) name = ownLabel(element);
      // Something to act on that holds only a link of its own name (a menu item around its
      // link) leaves the click to the link: one ref for one thing.
      if (actionable && role !== 'link' && children.length === 1 && children[0].role === 'link' &&
          children[0].ref && children[0].said === name && !statesOf(element, role).length) {
        out.push(children[0]);
        return;
      }
      let keep;
      if (actionable) keep = true;
      else if (!role) keep = false;
      else if (landmarks.has(role)) keep = (role !== 'form' && role !== 'region') || !!name;
      else if (interactiveOnly) keep = role === 'heading';
      else if (role === 'paragraph' || role === 'listitem') keep = false;
      else keep = true;
      const tag = element.localName;
      if (!keep) {
        if (role === 'img' && name && !interactiveOnly && seen(element)) out.push({ text: '[image] ' + clip(name, 100) });
        else if ((role === 'paragraph' || role === 'listitem') && !interactiveOnly) {
          if (children.length && children.every((c) => c.text !== undefined)) {
            const texts = children.map((c) => c.text).join(' ');
            out.push({ text: (role === 'listitem' ? '• ' : '') + texts, block: true });
          } else {
            // Text and links mixed: each as it comes, the text apart from what came before.
            if (children.length && children[0].text !== undefined) children[0] = { ...children[0], start: true };
            out.push(...children);
          }
        } else if (!interactiveOnly && (tag === 'dt' || tag === 'dd') &&
                   children.length && children.every((c) => c.text !== undefined)) {
          // A term and what it says: paired up by the list around them.
          out.push({ text: squash(children.map((c) => c.text).join(' ')), [tag]: true });
        } else if (!interactiveOnly && tag === 'dl') {
          out.push(...pairs(children));
        } else {
          out.push(...children);
        }
        return;
      }
      if (role === 'row' && !interactiveOnly) {
        // A row led by its header (an infobox's "Capital | Wellington") reads as one line.
        const [head, ...cells] = children;
        if (head && head.role === 'rowheader' && !head.ref && !head.children.length && head.name &&
            cells.length && cells.every((c) => c.role === 'cell' && !c.ref)) {
          const said = cells.map((c) => (c.name ? c.said : '')).filter(Boolean).join(' ');
          const inside = cells.flatMap((c) => c.children);
          out.push({ text: said ? labelled(head.said, said) : labelled(head.said, '') + (/[:：]$/.test(head.said) ? '' : ':'),
            block: !inside.length, start: true });
          out.push(...inside);
          return;
        }
      }
      const item = { role, name: clip(name, interactiveOnly ? 80 : 150), said: name, states: statesOf(element, role), children };
      if (role === 'link' && typeof element.href === 'string') item.href = element.href;
      if (actionable || element.tabIndex >= 0 && element.localName !== 'iframe' && role !== 'dialog') {
        item.ref = refOf(element);
        if (actionable) lastActionable.push(element);
      }
      // A name taken from the content says all its text: the text is not repeated under it.
      if (name && (namedByContent.has(role) || role === 'clickable')) {
        item.children = children.filter((c) => !c.text || !name.includes(c.text));
        // Nor by an image or a heading in it: the image goes, the heading keeps only its level.
        item.children = item.children
          .filter((c) => !(c.role === 'img' && !c.ref && !c.children.length && name.includes(c.said)))
          .map((c) => (c.role === 'heading' && !c.ref && c.said && name.includes(c.said) ? { ...c, name: '' } : c))
          .filter((c) => !(interactiveOnly && c.role === 'heading' && !c.name && !c.children.length));
      }
      // What holds only one thing to act on, of the same name, leaves the name to it.
      if (!actionable && name && item.children.length === 1 && item.children[0].ref &&
          item.children[0].said === name) item.name = '';
      if (interactiveOnly && !actionable && !landmarks.has(role) && role !== 'heading' &&
          role !== 'dialog') {
        out.push(...item.children);
        return;
      }
      if (interactiveOnly && landmarks.has(role) && item.children.length === 0) return;
      // A heading that left its words to the link it holds places nothing an interactive
      // snapshot doesn't show: the link stands alone.
      if (interactiveOnly && role === 'heading' && !item.name) {
        out.push(...item.children);
        return;
      }
      // A line with nothing in it to read or act on (an empty landmark, list or image) is left
      // out; a separator, a frame and a dialog say something by being there.
      if (!item.ref && !item.name && !item.children.length && item.states.every((s) => s.startsWith('level=')) &&
          !['separator', 'iframe', 'dialog', 'alertdialog'].includes(role)) return;
      out.push(item);
    };
    // The items of a description list, each term with its descriptions on one line.
    const pairs = (items) => {
      const out = [];
      for (const item of items) {
        const last = out[out.length - 1];
        if (item.dd && last && last.pair) {
          last.text = last.values++ ? last.text + ', ' + item.text : labelled(last.text, item.text);
        } else if (item.dt || item.dd) {
          out.push({ text: item.text, block: true, pair: !!item.dt, values: 0 });
        } else {
          out.push(item);
        }
      }
      return out;
    };
    const holdsLink = (items) => items.some((item) => (item.ref && item.role === 'link') || (item.children && holdsLink(item.children)));
    const holdsRefs = (items) => items.some((item) => item.ref || (item.children && holdsRefs(item.children)));
    const root = [];
    build(document.body || document.documentElement, root);
    if (viewportOnly) root.unshift(...placing.filter(Boolean));

    // Writes the tree; consecutive texts are joined, and a text said just before is not said again.
    const lines = [];
    let lastText = '';
    // An interactive snapshot shows one link to an address of another document where several
    // say the same (an image and a title leading to one story): the others do what it does.
    const linksShown = new Map();
    const here = location.href.split('#')[0];
    const sameAsShown = (item) => {
      if (!interactiveOnly || item.role !== 'link' || !item.ref || !item.href || item.children.length ||
          item.href.split('#')[0] === here || !/^(https?|file):/.test(item.href)) return false;
      const name = item.said || '';
      const shown = linksShown.get(item.href);
      if (!shown) {
        linksShown.set(item.href, [name]);
        return false;
      }
      if (shown.some((earlier) => name === '' || (earlier !== '' && (earlier.includes(name) || name.includes(earlier)))))
        return true;
      shown.push(name);
      return false;
    };
    const write = (items, depth) => {
      const pad = '  '.repeat(depth);
      let pending = [];
      const flush = () => {
        if (!pending.length) return;
        const text = clip(squash(pending.join(' ')), 250);
        if (text && text !== lastText) lines.push(pad + '- text: ' + text);
        lastText = text;
        pending = [];
      };
      for (const item of items) {
        if (item.frame !== undefined) {
          // Where the frame's own snapshot goes: a line of its own, which no other line starts
          // with (names are quoted, texts follow "- text:").
          flush();
          lines.push(pad + '\u0001' + item.frame);
          lastText = '';
          continue;
        }
        if (item.text !== undefined) {
          // A paragraph's text is a line of its own; inline pieces join the text around them.
          if (item.block || item.start) flush();
          pending.push(item.text);
          if (item.block) flush();
          continue;
        }
        if (sameAsShown(item)) continue;
        // A label's text followed by the field it names is said once, as the field's name.
        if (pending.length && item.name && squash(pending.join(' ')) === item.name) pending = [];
        flush();
        // A heading that says again what the line before it said keeps only its level, and is
        // left out of an interactive snapshot.
        let name = item.name;
        if (item.role === 'heading' && name && name === lastText && !item.ref && !item.children.length) {
          if (interactiveOnly) continue;
          name = '';
        }
        let line = pad + '- ' + item.role;
        if (name) line += ' ' + JSON.stringify(name);
        for (const state of item.states) line += ' [' + state + ']';
        if (item.ref) line += ' [ref=' + item.ref + ']';
        lines.push(line);
        lastText = item.name;
        write(item.children, depth + 1);
      }
      flush();
    };
    write(root, 0);
    if (viewportOnly) lines.push(whereTheScreenIs());
    return { text: lines.join('\n'), used: refs.used, frames: frameOwners.length, hosts: hostsToAsk.length,
      hidden: leftOut() };
  };

  // One line for an element, as the snapshot would show it: role "name" [ref=eN].
  const label = (element) => {
    const role = roleOf(element) || (clickable(element) ? 'clickable' : element.localName);
    const fields = ['textbox', 'searchbox', 'combobox', 'listbox', 'slider', 'spinbutton'];
    const name = clip(nameOf(element, role) || (fields.includes(role) ? '' : squash(textOf(element))), 60);
    const ref = refIfAny(element);
    return role + (name ? ' ' + JSON.stringify(name) : '') + (ref ? ' [ref=' + ref + ']' : '');
  };
  const element = (number) => {
    const weak = state.byNumber.get(number);
    const found = weak && weak.deref();
    return found && found.isConnected ? found : null;
  };
  const within = (outer, inner) => {
    for (let node = inner; node; node = node.parentNode || node.host) if (node === outer) return true;
    return false;
  };
  // What lies over `found` where the pointer would hit `hit`, as a label; '' when nothing does.
  const coveredBy = (found, hit) => {
    const labelFor = hit && hit.closest && hit.closest('label');
    if (!hit || within(found, hit) || (labelFor && labelFor.control === found)) return '';
    // Named by the largest thing with a role that lies over it (a dialog rather than its
    // close button), else by the nearest.
    let nearest = null;
    let largest = null;
    for (let over = hit; over && over !== document.body && over !== document.documentElement &&
         !within(over, found); over = over.parentElement) {
      if (roleOf(over) || clickable(over)) {
        if (!nearest) nearest = over;
        largest = over;
      }
    }
    return label(largest || nearest || hit);
  };
  // Where to act on an element: scrolled into view, its centre in the top page's CSS px, and
  // what would take the pointer there instead of it.
  const target = (number) => {
    const found = element(number);
    if (!found) return { gone: true };
    found.scrollIntoView({ block: 'center', inline: 'center', behavior: 'instant' });
    const box = found.getBoundingClientRect();
    const result = { label: label(found) };
    if (!shown(found) || (box.width === 0 && box.height === 0)) return { ...result, hidden: true };
    if (found.disabled || found.getAttribute('aria-disabled') === 'true') result.disabled = true;
    const x = box.left + box.width / 2;
    const y = box.top + box.height / 2;
    let hit = found.ownerDocument.elementFromPoint(x, y);
    while (hit && shadowOf(hit)) {
      const inner = shadowOf(hit).elementFromPoint(x, y);
      if (!inner || inner === hit) break;
      hit = inner;
    }
    const over = coveredBy(found, hit);
    if (over) result.covered = over;
    // Input goes to the top page: the centre through the frames around the element.
    const inTop = boxInTop(found);
    return { ...result, x: inTop.left + inTop.width / 2, y: inTop.top + inTop.height / 2 };
  };
  // A point of a frame's viewport (x, y), where `owner` is the frame's element in this document,
  // as a point of the top page's viewport through this world's frames: the frame's content box
  // lies inside its border and padding. When the point is off screen the page scrolls to it; what
  // of this document lies over it is `covered`.
  const inFrame = (owner, x, y) => {
    const view = owner.ownerDocument.defaultView;
    const inside = () => {
      const box = owner.getBoundingClientRect();
      const style = view.getComputedStyle(owner);
      return { box, left: owner.clientLeft + parseFloat(style.paddingLeft || '0'),
        top: owner.clientTop + parseFloat(style.paddingTop || '0') };
    };
    let at = inside();
    let px = at.box.left + at.left + x, py = at.box.top + at.top + y;
    if (px < 0 || py < 0 || px >= view.innerWidth || py >= view.innerHeight) {
      view.scrollBy({ left: px - view.innerWidth / 2, top: py - view.innerHeight / 2, behavior: 'instant' });
      at = inside();
      px = at.box.left + at.left + x;
      py = at.box.top + at.top + y;
    }
    const result = {};
    let hit = owner.ownerDocument.elementFromPoint(px, py);
    while (hit && shadowOf(hit)) {
      const inner = shadowOf(hit).elementFromPoint(px, py);
      if (!inner || inner === hit) break;
      hit = inner;
    }
    const over = coveredBy(owner, hit);
    if (over) result.covered = over;
    const inTop = boxInTop(owner);
    return { ...result, x: inTop.left + at.left + x, y: inTop.top + at.top + y };
  };
  // Resolves once the page has drawn twice (a tenth of a second at most, for a tab that isn't
  // drawn): input that came before has been handled by then.
  const drawn = () => new Promise((resolve) => {
    setTimeout(resolve, 100);
    requestAnimationFrame(() => requestAnimationFrame(resolve));
  });
  const frameOwner = (index) => frameOwners[index] || null;
  // Puts the caret in a field for typing: at the end, or over all of it to type it anew.
  const focusForTyping = (number, replace) => {
    const found = element(number);
    if (!found) return { gone: true };
    found.focus();
    const field = found.localName === 'input' || found.localName === 'textarea';
    if (field && typeof found.setSelectionRange === 'function') {
      try {
        if (replace) found.select();
        else found.setSelectionRange(found.value.length, found.value.length);
      } catch (e) {
        // Fields such as email have no selection to set.
        if (replace) found.select();
      }
    } else if (found.isContentEditable) {
      const range = found.ownerDocument.createRange();
      range.selectNodeContents(found);
      if (!replace) range.collapse(false);
      const selection = found.ownerDocument.getSelection();
      selection.removeAllRanges();
      selection.addRange(range);
    }
    return { label: label(found) };
  };
  // Picks an option of a select by its text or value.
  const choose = (number, wanted) => {
    const found = element(number);
    if (!found) return { gone: true };
    if (found.localName !== 'select')
      return { error: label(found) + ' is not a dropdown (a select): click it, then the option' };
    const options = Array.from(found.options);
    const plain = (text) => squash(text).toLowerCase();
    const option = options.find((o) => squash(o.textContent) === wanted) ||
      options.find((o) => o.value === wanted) ||
      options.find((o) => plain(o.textContent) === plain(wanted)) ||
      options.find((o) => plain(o.textContent).includes(plain(wanted)));
    if (!option)
      return { error: 'no option ' + JSON.stringify(wanted) + ' in ' + label(found) + ': ' +
        options.map((o) => JSON.stringify(squash(o.textContent))).join(', ') };
    if (option.disabled) return { error: 'the option ' + JSON.stringify(squash(option.textContent)) + ' is disabled' };
    found.focus();
    found.value = option.value;
    option.selected = true;
    found.dispatchEvent(new Event('input', { bubbles: true }));
    found.dispatchEvent(new Event('change', { bubbles: true }));
    return { label: label(found), chosen: squash(option.textContent) };
  };
  // What on the page says `text`: the smallest elements that say it, what can be acted on first.
  const find = (text, base) => withSight(() => findWith(text, base));
  const findWith = (text, base) => {
    refs = { base, used: 0 };
    terse = false;
    const wanted = squash(text).toLowerCase();
    if (!wanted) return { text: 'nothing to find', used: 0 };
    const matches = [];
    const visit = (root) => {
      for (const candidate of root.querySelectorAll('*')) {
        if (shadowOf(candidate)) visit(shadowOf(candidate));
        // A frame of this origin is read here, as snapshots read it.
        if (candidate.localName === 'iframe' || candidate.localName === 'frame') {
          let inner = null;
          try {
            inner = candidate.contentDocument;
          } catch (e) {
            // Another origin's: read in its own world.
          }
          if (inner && inner.body && shown(candidate)) visit(inner.body);
        }
        const role = roleOf(candidate);
        // Its text when it is short to read: an element of text alone, or of text and words
        // set apart in it ("<strong>3</strong> items left"), or one to act on.
        const reads = candidate.children.length === 0 || clickable(candidate) || widgets.has(role) ||
          (!shadowOf(candidate) && !['body', 'html'].includes(candidate.localName) &&
           Array.from(candidate.children).every((child) => child.childElementCount === 0 && !shadowOf(child)));
        const given = (role ? nameOf(candidate, role) : '') + ' ' + (candidate.getAttribute('placeholder') || '');
        if (!(given + ' ' + (reads ? squash(candidate.textContent) : '')).toLowerCase().includes(wanted)) continue;
        if (['script', 'style', 'noscript', 'template', 'title', 'head'].includes(candidate.localName)) continue;
        if (!shown(candidate)) continue;
        // Said where a person sees it.
        if (!(given + ' ' + (reads ? squash(textOf(candidate)) : '')).toLowerCase().includes(wanted)) continue;
        matches.push(candidate);
      }
    };
    visit(document);
    const actionable = (candidate) => widgets.has(roleOf(candidate)) || clickable(candidate);
    const kept = matches.filter((candidate) => {
      // Text inside a button or link is that button or link.
      for (let up = candidate.parentElement; up; up = up.parentElement)
        if (matches.includes(up) && actionable(up) && !actionable(candidate)) return false;
      // Of text that says it, the smallest element.
      return actionable(candidate) || !matches.some((other) => other !== candidate && within(candidate, other));
    });
    kept.sort((a, b) => (actionable(b) - actionable(a)) ||
      (squash(a.textContent).length - squash(b.textContent).length));
    // A label named by its field's own line says nothing more, nor a group by its legend's.
    const shownKept = kept.filter((candidate) => !(candidate.localName === 'label' && candidate.control &&
      kept.includes(candidate.control)) && !(candidate.localName === 'fieldset' &&
      kept.includes(candidate.querySelector(':scope > legend'))));
    const lines = shownKept.slice(0, 20).map((candidate) => {
      refOf(candidate);
      const value = labelledBy(candidate);
      return '- ' + fullLabel(candidate) + (value ? ': ' + value : '');
    });
    if (shownKept.length > 20) lines.push(`(and ${shownKept.length - 20} more: say more of the text)`);
    // The texts that say it where no one sees them.
    let hidden = 0;
    for (const node of sight.left) if (squash(node.data || '').toLowerCase().includes(wanted)) ++hidden;
    return { text: lines.length ? lines.join('\n') : 'nothing on the page says ' + JSON.stringify(text), used: refs.used,
      found: shownKept.length, hidden };
  };
  // A line of find's, with the element's states: role "name" [states] [ref=eN].
  const fullLabel = (found) => {
    const role = roleOf(found);
    const states = role ? statesOf(found, role) : [];
    return label(found).replace(/ \[ref=/, states.map((s) => ' [' + s + ']').join('') + ' [ref=');
  };
  // What a label found by find labels: a row header's cells, a term's descriptions, a column
  // header's cells (the first ten), a label's field, a legend's fields; '' for anything else.
  const labelledBy = (found) => {
    if (['input', 'select', 'textarea', 'button'].includes(found.localName)) return '';
    const holder = found.closest('th, dt, label, legend');
    if (!holder) return '';
    const said = (cell) => squash(textOf(cell));
    const tag = holder.localName;
    if (tag === 'th') {
      const row = holder.parentElement;
      if (!row || row.localName !== 'tr') return '';
      const role = roleOf(holder);
      if (role === 'columnheader') {
        const table = holder.closest('table');
        const column = holder.cellIndex;
        const cells = [];
        for (const other of table ? table.rows : []) {
          if (other === row || other.parentElement.localName === 'thead') continue;
          const cell = other.cells[column];
          if (cell && shown(cell) && said(cell)) cells.push(said(cell));
        }
        return cells.slice(0, 10).join(', ') + (cells.length > 10 ? ` (and ${cells.length - 10} more)` : '');
      }
      return Array.from(row.cells).filter((cell) => cell !== holder && shown(cell)).map(said).filter(Boolean).join(' | ');
    }
    if (tag === 'dt') {
      const values = [];
      for (let next = holder.nextElementSibling; next && next.localName !== 'dt'; next = next.nextElementSibling)
        if (next.localName === 'dd' && shown(next) && said(next)) values.push(said(next));
      return values.join(', ');
    }
    if (tag === 'label') return holder.control && shown(holder.control) ? (refOf(holder.control), fullLabel(holder.control)) : '';
    const fields = holder.parentElement && holder.parentElement.localName === 'fieldset'
      ? Array.from(holder.parentElement.querySelectorAll('input:not([type=hidden]), select, textarea')).filter(shown) : [];
    return fields.slice(0, 8).map((field) => (refOf(field), fullLabel(field))).join(', ') +
      (fields.length > 8 ? ` (and ${fields.length - 8} more)` : '');
  };
  const usualStyles = ['display', 'position', 'top', 'left', 'width', 'height', 'margin', 'padding',
    'border', 'color', 'background-color', 'font-family', 'font-size', 'font-weight', 'line-height',
    'text-align', 'visibility', 'opacity', 'z-index', 'overflow', 'cursor', 'pointer-events'];
  const inspect = (number, styles) => {
    const found = element(number);
    if (!found) return { gone: true };
    // Where it lies in the page of this world's document, through the frames it shares.
    const box = boxInTop(found);
    const attributes = {};
    for (const attribute of found.attributes) attributes[attribute.name] = clip(attribute.value, 300);
    const names = styles ? styles.split(',').map((s) => s.trim()).filter(Boolean) : usualStyles;
    const computed = getComputedStyle(found);
    const style = {};
    for (const name of names) style[name] = computed.getPropertyValue(name);
    return { element: { tag: found.localName, ref: 'e' + number, attributes,
      box: { x: Math.round(box.left + scrollX), y: Math.round(box.top + scrollY),
        width: Math.round(box.width), height: Math.round(box.height) }, style } };
  };
  // Counts changes to the document between watch() and changes().
  let mutations = 0;
  let observer = null;
  // The back end's own banners (banner.js) come and go without the page changing.
  const ours = (record) => {
    const hosts = globalThis.__nurelBanner && globalThis.__nurelBanner.hosts;
    if (!hosts) return false;
    if (hosts.has(record.target)) return true;
    const nodes = [...record.addedNodes, ...record.removedNodes];
    return nodes.length > 0 && nodes.every((node) => hosts.has(node));
  };
  const counted = (records) => records.filter((record) => !ours(record)).length;
  let lastChange = 0;
  const count = (records) => {
    const more = counted(records);
    if (more > 0) {
      mutations += more;
      lastChange = performance.now();
    }
  };
  // What is acted on may change without the document doing so (a checkbox's checked, a
  // field's value): its states count too.
  let watched = null;
  const statesNow = (found) => (found && found.isConnected ? statesOf(found, roleOf(found)).join(' ') : '');
  // What the page does after an input is counted from when the page had it (in the page's
  // time, which a busy machine slows as it slows the page's timers), not from when it was sent.
  let lastInput = 0;
  // And when the page last had a response: what a response sets off comes just after it.
  let lastResponse = 0, responses = null;
  const answered = (list) => {
    for (const entry of list.getEntries()) lastResponse = Math.max(lastResponse, entry.responseEnd);
  };
  const inputs = ['pointerover', 'pointermove', 'pointerdown', 'pointerup', 'mousedown', 'mouseup',
    'click', 'dblclick', 'contextmenu', 'keydown', 'keyup', 'input', 'change', 'wheel', 'scroll',
    'focusin', 'dragstart', 'drop', 'dragend'];
  const watch = (number) => {
    if (!observer) {
      observer = new MutationObserver(count);
      observer.observe(document, { subtree: true, childList: true, attributes: true, characterData: true });
      const had = () => { lastInput = performance.now(); };
      for (const type of inputs) window.addEventListener(type, had, { capture: true, passive: true });
      try {
        responses = new PerformanceObserver(answered);
        responses.observe({ type: 'resource' });
      } catch (e) {
        responses = null;
      }
    }
    observer.takeRecords();
    mutations = 0;
    lastChange = lastInput = performance.now();
    const found = number ? element(number) : null;
    watched = found ? { found, states: statesNow(found) } : null;
    return true;
  };
  const changes = () => {
    if (!observer) return 0;
    count(observer.takeRecords());
    return mutations + (watched && statesNow(watched.found) !== watched.states ? 1 : 0);
  };
  // Milliseconds since the page last changed, had an input or a response (or since watch()),
  // since it last had an input, and since its last response.
  const still = () => {
    if (observer) count(observer.takeRecords());
    if (responses) answered({ getEntries: () => responses.takeRecords() });
    const now = performance.now();
    return [Math.round(now - Math.max(lastChange, lastInput, lastResponse)), Math.round(now - lastInput),
      Math.round(now - lastResponse)];
  };
  const scrolled = () => {
    const scroller = document.scrollingElement || document.documentElement;
    return { x: Math.round(scrollX), y: Math.round(scrollY),
      most: Math.max(0, Math.round((scroller ? scroller.scrollHeight : 0) - innerHeight)) };
  };

  // An element's box in the top page's viewport, through the frames of this origin it is in.
  const boxInTop = (found) => {
    const box = found.getBoundingClientRect();
    let left = box.left, top = box.top;
    for (let view = found.ownerDocument.defaultView; view && view !== window && view.frameElement;) {
      // The frame's document starts inside its border and padding.
      const frame = view.frameElement;
      const frameBox = frame.getBoundingClientRect();
      const style = frame.ownerDocument.defaultView.getComputedStyle(frame);
      left += frameBox.left + frame.clientLeft + parseFloat(style.paddingLeft || '0');
      top += frameBox.top + frame.clientTop + parseFloat(style.paddingTop || '0');
      view = frame.ownerDocument.defaultView;
    }
    return { left, top, width: box.width, height: box.height };
  };
  // Outlines what the last snapshot found to act on, each with its ref, over the page: in a
  // closed shadow root that the page cannot read, and gone again after the picture.
  let labelsHost = null;
  const drawLabels = () => {
    removeLabels();
    const host = document.createElement('div');
    host.style.cssText = 'position:fixed;inset:0;pointer-events:none;z-index:2147483647;margin:0;padding:0;border:0';
    const root = host.attachShadow({ mode: 'closed' });
    let count = 0;
    for (const found of lastActionable) {
      if (!found.isConnected) continue;
      const box = boxInTop(found);
      if (box.width <= 0 || box.height <= 0 || box.top >= innerHeight || box.left >= innerWidth ||
          box.top + box.height <= 0 || box.left + box.width <= 0) continue;
      const frame = document.createElement('div');
      frame.style.cssText = `position:fixed;left:${box.left}px;top:${box.top}px;width:${box.width}px;` +
        `height:${box.height}px;outline:2px solid #d6246e;outline-offset:-1px;box-sizing:border-box`;
      const tag = document.createElement('span');
      tag.textContent = refIfAny(found);
      tag.style.cssText = `position:absolute;left:-1px;${box.top >= 14 ? 'top:-15px' : 'top:0'};` +
        'background:#d6246e;color:#fff;font:bold 11px/14px monospace;padding:0 3px;white-space:nowrap';
      frame.appendChild(tag);
      root.appendChild(frame);
      ++count;
    }
    document.documentElement.appendChild(host);
    labelsHost = host;
    return count;
  };
  const removeLabels = () => {
    if (labelsHost) labelsHost.remove();
    labelsHost = null;
    return true;
  };
  // An element's box in the page (CSS px from its top left), scrolled into view, for a picture.
  const pictureBox = (number) => {
    const found = element(number);
    if (!found) return { gone: true };
    found.scrollIntoView({ block: 'center', inline: 'center', behavior: 'instant' });
    const box = boxInTop(found);
    return { x: box.left + scrollX, y: box.top + scrollY, width: box.width, height: box.height };
  };

  // All the text a person sees, as lines and paragraphs the way the page lays it out: through
  // open shadow roots and frames of this origin. With how many texts it left out.
  const visibleText = () => withSight(() => {
    const out = [];
    const skipped = new Set(['script', 'style', 'noscript', 'template', 'head', 'title', 'meta', 'link']);
    const inside = (node) => {
      if (shadowOf(node)) return shadowOf(node).childNodes;
      if (node.localName === 'slot') {
        const assigned = node.assignedNodes({ flatten: true });
        if (assigned.length) return assigned;
      }
      if (node.localName === 'iframe' || node.localName === 'frame') {
        try {
          const inner = node.contentDocument;
          return inner && inner.body ? [inner.body] : [];
        } catch (e) {
          return [];
        }
      }
      return node.childNodes;
    };
    const walk = (node) => {
      for (const child of inside(node)) {
        if (child.nodeType === Node.TEXT_NODE) {
          if (!child.data.trim()) {
            if (child.data) out.push(' ');
          } else if (seen(child)) {
            const holder = child.parentElement;
            const style = holder ? styleOf(holder) : null;
            let said = style && style.whiteSpace.startsWith('pre') ? child.data : child.data.replace(/\s+/g, ' ');
            // As the page shows it: in capitals where it says so.
            const transform = style ? style.textTransform : 'none';
            if (transform === 'uppercase') said = said.toUpperCase();
            else if (transform === 'lowercase') said = said.toLowerCase();
            else if (transform === 'capitalize') said = said.replace(/(^|[\s(\-"'])(\p{Ll})/gu, (all, before, letter) => before + letter.toUpperCase());
            out.push(said);
          }
          continue;
        }
        if (child.nodeType !== Node.ELEMENT_NODE) continue;
        const tag = child.localName;
        if (skipped.has(tag) || bannerHost(child)) continue;
        if (tag === 'br') {
          out.push('\n');
          continue;
        }
        const display = styleOf(child).display;
        if (display === 'none' || (display !== 'contents' && !child.checkVisibility())) continue;
        // A dropdown shows the option chosen; a list box, all of them.
        if (tag === 'select') {
          const options = child.multiple || child.size > 1 ? Array.from(child.options) : Array.from(child.selectedOptions);
          out.push(' ' + options.map((option) => squash(option.textContent)).join('\n') + ' ');
          continue;
        }
        // Around a block, a line break it needs (a number: those of blocks side by side make
        // one, as innerText has it); two around a paragraph; a tab after a table's cell.
        const around = tag === 'p' ? 2 : display.startsWith('inline') || display === 'contents' ? 0
          : display === 'table-cell' ? 0 : 1;
        if (around) out.push(around);
        walk(child);
        if (around) out.push(around);
        else if (display === 'table-cell') out.push('\t');
      }
    };
    const root = document.body || document.documentElement;
    if (root) walk(root);
    let joined = '', breaks = 0;
    for (const piece of out) {
      if (typeof piece === 'number') {
        breaks = Math.max(breaks, piece);
      } else if (!breaks || piece.trim() || piece === '\n') {
        if (breaks && joined) joined += '\n'.repeat(breaks);
        breaks = 0;
        joined += piece;
      }
    }
    const text = joined.split('\n')
      .map((line) => line.replace(/[ \u00a0]*\t[ \t\u00a0]*/g, '\t').replace(/ {2,}/g, ' ').trim())
      .join('\n').replace(/\n{3,}/g, '\n\n').trim();
    return { text, hidden: leftOut() };
  });
  // For the article's text, read from a copy of the document: the texts of the body a person
  // can't see, by their place among its texts, and whether each counts as left out.
  const hiddenTexts = () => withSight(() => {
    const hidden = [];
    if (!document.body) return hidden;
    const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
    for (let node = walker.nextNode(), at = 0; node; node = walker.nextNode(), ++at) {
      // Scripts and styles are Readability's to read or leave (it takes a title from JSON-LD).
      const holder = node.parentElement;
      if (!node.data.trim() || (holder && (holder.localName === 'script' || holder.localName === 'style')) || seen(node)) continue;
      hidden.push([at, sight.left.has(node)]);
    }
    return hidden;
  });
  // What a person sees of each element's text, word for word as its texts say it, and how many
  // texts in them they don't.
  const seenTexts = (elements) => withSight(() => {
    const said = (node) => {
      let out = '';
      for (const child of node.childNodes) {
        if (child.nodeType === Node.TEXT_NODE) out += !child.data.trim() || seen(child) ? child.data : '';
        else if (child.nodeType === Node.ELEMENT_NODE) out += said(child);
      }
      return out;
    };
    return { texts: elements.map((found) => squash(said(found))), hidden: leftOut() };
  });

  globalThis.__nurel = { visibleText, hiddenTexts, seenTexts, snapshot, target, focusForTyping, choose, find, inspect, watch, changes, still, drawn,
    scrolled, label, element, drawLabels, removeLabels, pictureBox, frameOwner, inFrame,
    closedRootHosts, hostsToAsk: () => hostsToAsk, keepClosedRoot, keepDoubleClicks };
})()
