// The editor page. The server fills the textarea with the file's text and #info with a message
// ("" when the file was read); the file's library path is the page's own "path" query parameter.
import { parentOf, nameOf, route, callJson, show } from './common.js';
import { highlightLua } from './lua.js';

const $ = (id) => document.getElementById(id);
const source = $('source');
const highlight = $('highlight');
const gutter = $('gutter');
const state = $('save-state');
const info = $('info');
const path = new URLSearchParams(location.search).get('path') || '';
const INDENT = '    ';

let saved = source.value;
let saving = false;
let numberedLines = 0;

$('file-name').textContent = path;
$('back').href = '/#' + encodeURI(parentOf(path || '/'));
document.title = `${nameOf(path) || 'Editor'}: Tapwright`;
info.hidden = info.textContent.trim() === '';
// The server could not give the text (no such file, unreadable): saving would replace the file
// with nothing, so the editor stays read-only.
const usable = info.hidden && path.length >= 2;
source.readOnly = !usable;
$('save').disabled = !usable;

function dirty() {
  return source.value !== saved;
}

function render() {
  // A trailing newline needs a character after it to take up its line in the <pre>.
  highlight.innerHTML = highlightLua(source.value) + '\n ';
  const lines = source.value.split('\n').length;
  if (numberedLines !== lines) {
    numberedLines = lines;
    gutter.textContent = Array.from({ length: lines }, (_, i) => i + 1).join('\n');
  }
  syncScroll();
  document.title = `${dirty() ? '● ' : ''}${nameOf(path) || 'Editor'}: Tapwright`;
}

// After an edit: the state says whether the text differs from the saved one (a save's own
// result stays until the next edit).
function edited() {
  render();
  if (saving) return;
  if (dirty()) show(state, 'Unsaved changes');
  else if (state.textContent === 'Unsaved changes') show(state, '');
}

function syncScroll() {
  highlight.scrollTop = source.scrollTop;
  highlight.scrollLeft = source.scrollLeft;
  gutter.scrollTop = source.scrollTop;
}

async function save() {
  if (!usable || saving) return;
  const content = source.value;
  saving = true;
  show(state, 'Saving…');
  try {
    await callJson(route('/file/update', { path }), {
      method: 'POST',
      body: new URLSearchParams({ content }),
    });
    saved = content;
    show(state, 'Saved', 'ok');
  } catch (err) {
    show(state, `Not saved: ${err.message}`, 'error');
  } finally {
    saving = false;
    render();
  }
}

source.addEventListener('input', edited);
source.addEventListener('scroll', syncScroll);
source.addEventListener('keydown', (e) => {
  if (e.key !== 'Tab' || e.ctrlKey || e.altKey || e.metaKey || e.shiftKey) return;
  e.preventDefault();
  // insertText keeps the browser's undo history; setRangeText is the fallback.
  if (!document.execCommand('insertText', false, INDENT)) {
    source.setRangeText(INDENT, source.selectionStart, source.selectionEnd, 'end');
    edited();
  }
});
document.addEventListener('keydown', (e) => {
  if ((e.ctrlKey || e.metaKey) && !e.altKey && e.key.toLowerCase() === 's') {
    e.preventDefault();
    save();
  }
});
$('save').addEventListener('click', save);
window.addEventListener('beforeunload', (e) => {
  if (!dirty()) return;
  e.preventDefault();
  e.returnValue = '';
});

render();
if (usable) source.focus();
