// The page's text for an agent: the article as the Readability library finds it, with its
// headings, paragraphs and list items kept apart, else (or with `all`) all the visible text.
// Only what a person can see: page.js judges the texts. Answers { text, hidden }, hidden being
// how many texts a person can't see were left out.
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
      // Where texts a person can't see stood (marked in the copy Readability read): a line of
      // nothing else goes, and one space stays where there was one around them.
      .replace(/^(- |#+ )?[\ufdd0\ufdd1][\ufdd0\ufdd1 ]*$/gm, '')
      .replace(/ *[\ufdd0\ufdd1][\ufdd0\ufdd1 ]*/g, (run) => (run.includes(' ') ? ' ' : ''))
      .replace(/^ +| +$/gm, '')
      .replace(/^- *$/gm, '')
      .replace(/\n{3,}/g, '\n\n')
      .trim();
  };
  if (!all && typeof Readability === 'function') {
    try {
      // The copy Readability reads has none of the texts a person can't see: a mark stands in
      // each one's place, which it carries through, so that those of the article are counted
      // (\ufdd0; \ufdd1 for a control's hidden name, which isn't counted).
      const hidden = new Map(__nurel.hiddenTexts());
      const copy = document.cloneNode(true);
      if (copy.body && hidden.size) {
        const walker = copy.createTreeWalker(copy.body, NodeFilter.SHOW_TEXT);
        for (let node = walker.nextNode(), at = 0; node; node = walker.nextNode(), ++at)
          if (hidden.has(at)) node.data = hidden.get(at) ? '\ufdd0' : '\ufdd1';
      }
      const article = new Readability(copy).parse();
      if (article && article.content) {
        const parsed = new DOMParser().parseFromString(article.content, 'text/html');
        const body = asText(parsed.body);
        if (body.length > 0) {
          const title = (article.title || '').trim();
          return { text: (title ? '# ' + title + '\n\n' : '') + body,
            hidden: (article.content.match(/\ufdd0/g) || []).length };
        }
      }
    } catch (e) {
      // Not an article: the visible text below.
    }
  }
  return __nurel.visibleText();
}
