// The page's text for an agent: the article as the Readability library finds it, with its
// headings, paragraphs and list items kept apart, else (or with `all`) all the visible text.
// Runs in the back end's isolated world; the page's own scripts can't see or change it.
(all) => {
  const skipped = new Set(['SCRIPT', 'STYLE', 'NOSCRIPT', 'TEMPLATE', 'SVG', 'CANVAS', 'IFRAME']);
  const blocks = new Set(['P', 'DIV', 'SECTION', 'ARTICLE', 'BLOCKQUOTE', 'UL', 'OL', 'DL', 'DT',
    'DD', 'TABLE', 'TR', 'FIGURE', 'FIGCAPTION', 'HEADER', 'FOOTER', 'ASIDE', 'NAV', 'MAIN',
    'FORM', 'FIELDSET', 'DETAILS', 'SUMMARY', 'ADDRESS', 'HR']);
  const asText = (root) => {
    const out = [];
    const walk = (node) => {
      if (node.nodeType === Node.TEXT_NODE) {
        out.push(node.data.replace(/\s+/g, ' '));
        return;
      }
      if (node.nodeType !== Node.ELEMENT_NODE || skipped.has(node.tagName.toUpperCase())) return;
      const tag = node.tagName.toUpperCase();
      if (tag === 'BR') { out.push('\n'); return; }
      if (tag === 'PRE') { out.push('\n\n' + node.textContent + '\n\n'); return; }
      const heading = /^H([1-6])$/.exec(tag);
      if (heading) {
        out.push('\n\n' + '#'.repeat(Number(heading[1])) + ' ');
      } else if (tag === 'LI') {
        out.push('\n- ');
      } else if (tag === 'TD' || tag === 'TH') {
        out.push(' ');
      } else if (blocks.has(tag)) {
        out.push('\n\n');
      }
      for (const child of node.childNodes) walk(child);
      if (heading || blocks.has(tag)) out.push('\n\n');
    };
    walk(root);
    return out.join('')
      .split('\n').map((line) => line.trim()).join('\n')
      .replace(/^- *$/gm, '')
      .replace(/\n{3,}/g, '\n\n')
      .trim();
  };
  if (!all && typeof Readability === 'function') {
    try {
      const article = new Readability(document.cloneNode(true)).parse();
      if (article && article.content) {
        const parsed = new DOMParser().parseFromString(article.content, 'text/html');
        const body = asText(parsed.body);
        if (body.length > 0) {
          const title = (article.title || '').trim();
          return (title ? '# ' + title + '\n\n' : '') + body;
        }
      }
    } catch (e) {
      // Not an article: the visible text below.
    }
  }
  const root = document.body || document.documentElement;
  if (!root) return '';
  return (root.innerText || '').replace(/\n{3,}/g, '\n\n').trim();
}
