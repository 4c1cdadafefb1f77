// Lua syntax highlighting to HTML: keywords, strings (quoted and long brackets), comments (line
// and long) and numbers. Anything the pattern does not take is passed through escaped.

const KEYWORDS = new Set(('and break do else elseif end false for function goto if in local nil not ' +
  'or repeat return then true until while').split(' '));

// Groups: 1 comment, 3 string, 5 number, 6 name. Long brackets close on the same count of '='
// (back-references 2 and 4); unclosed ones and unclosed quotes run to the end of the text or line.
const TOKEN = new RegExp([
  /(--\[(=*)\[[\s\S]*?(?:\]\2\]|$)|--[^\n]*)/.source,
  /(\[(=*)\[[\s\S]*?(?:\]\4\]|$)|"(?:[^"\\\n]|\\[\s\S])*"?|'(?:[^'\\\n]|\\[\s\S])*'?)/.source,
  /(0[xX][0-9a-fA-F]*(?:\.[0-9a-fA-F]*)?(?:[pP][+-]?\d+)?|(?:\d+\.?\d*|\.\d+)(?:[eE][+-]?\d+)?)/.source,
  /([A-Za-z_]\w*)/.source,
].join('|'), 'g');

export function escapeHtml(text) {
  return text.replace(/[&<>]/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;' })[c]);
}

export function highlightLua(text) {
  let html = '';
  let at = 0;
  const span = (kind, s) => `<span class="tok-${kind}">${escapeHtml(s)}</span>`;
  for (const m of text.matchAll(TOKEN)) {
    html += escapeHtml(text.slice(at, m.index));
    at = m.index + m[0].length;
    if (m[1] !== undefined) html += span('com', m[0]);
    else if (m[3] !== undefined) html += span('str', m[0]);
    else if (m[5] !== undefined) html += span('num', m[0]);
    else html += KEYWORDS.has(m[0]) ? span('kw', m[0]) : escapeHtml(m[0]);
  }
  return html + escapeHtml(text.slice(at));
}
