// The library page: one folder of the script library at a time, its folder in the location's
// hash ("#/sub/folder"), so the browser's back button and a reload keep the place.
import { parentOf, nameOf, join, extensionOf, route, callJson, show } from './common.js';

const $ = (id) => document.getElementById(id);
const message = $('message');
const SCRIPT_EXTENSIONS = ['lua', 'e'];
// Icons of files whose text the editor can show.
const TEXT_ICONS = ['text@2x.png', 'code@2x.png', 'empty@2x.png'];

function currentFolder() {
  let folder = '/';
  try {
    folder = decodeURIComponent(location.hash.slice(1)) || '/';
  } catch { /* a hand-typed bad escape: the root */ }
  return folder.startsWith('/') ? folder : '/' + folder;
}

function openFolder(path) {
  location.hash = encodeURI(path);
}

// A name asked for in the page (new script, new folder, rename) or a yes/no question when
// `value` is undefined. Resolves to the name, true for yes, or null when cancelled.
function ask(text, { value, ok = 'OK' } = {}) {
  const dialog = $('ask');
  const input = $('ask-name');
  $('ask-text').textContent = text;
  $('ask-ok').textContent = ok;
  $('ask-ok').className = value === undefined ? 'danger' : '';
  input.hidden = value === undefined;
  input.value = value ?? '';
  dialog.returnValue = '';
  dialog.showModal();
  if (value !== undefined) {
    input.focus();
    const dot = input.value.lastIndexOf('.');
    input.setSelectionRange(0, dot > 0 ? dot : input.value.length);
  } else {
    $('ask-cancel').focus();
  }
  return new Promise((resolve) => {
    dialog.addEventListener('close', () => {
      if (dialog.returnValue !== 'ok') return resolve(null);
      resolve(value === undefined ? true : input.value.trim());
    }, { once: true });
  });
}

// A name for a new entry of the current folder, or null; a name with "/" is refused.
async function askName(text, value) {
  const name = await ask(text, { value });
  if (name === null || name === '') return null;
  if (name.includes('/')) {
    show(message, 'A name cannot contain "/".', 'error');
    return null;
  }
  return name;
}

// Runs one request for an action; its error, if any, is shown; then the listing is reloaded.
async function act(what, done) {
  try {
    await what();
    if (done) show(message, done, 'ok');
  } catch (err) {
    show(message, err.message, 'error');
  }
  await load();
}

function renderCrumbs(folder) {
  const nav = $('crumbs');
  nav.replaceChildren();
  const parts = folder.split('/').filter(Boolean);
  const crumb = (label, path, last) => {
    const el = document.createElement(last ? 'span' : 'a');
    el.textContent = label;
    if (!last) el.href = '#' + encodeURI(path);
    else el.setAttribute('aria-current', 'page');
    nav.append(el);
  };
  crumb('Scripts', '/', parts.length === 0);
  parts.forEach((part, i) => {
    const sep = document.createElement('span');
    sep.className = 'sep';
    sep.textContent = '/';
    nav.append(sep);
    crumb(part, '/' + parts.slice(0, i + 1).join('/'), i === parts.length - 1);
  });
}

function button(label, onClick, className = '') {
  const b = document.createElement('button');
  b.type = 'button';
  b.textContent = label;
  b.className = className;
  b.addEventListener('click', onClick);
  return b;
}

function renderEntry(entry) {
  const path = entry.filePath;
  const name = nameOf(path);
  const isFolder = entry.iconName === 'folder@2x.png';
  const ext = extensionOf(path);
  const row = document.createElement('tr');
  row.dataset.path = path;

  const icon = document.createElement('img');
  icon.src = '/icons/' + entry.iconName;
  icon.alt = isFolder ? 'folder' : ext || 'file';
  const iconCell = row.insertCell();
  iconCell.className = 'icon';
  iconCell.append(icon);

  const link = document.createElement('a');
  link.textContent = name;
  link.className = 'name';
  if (isFolder) {
    link.href = '#' + encodeURI(path);
  } else {
    link.href = route('/file/view', { path });
    link.target = '_blank';
  }
  row.insertCell().append(link);

  const size = row.insertCell();
  size.className = 'size';
  size.textContent = isFolder ? '' : entry.fileSize.trim();

  const marks = row.insertCell();
  for (const [flag, label, title] of [
    ['playSettings', 'settings', 'Has play settings'],
    ['trigger', 'trigger', 'Bound to a trigger'],
    ['timer', 'timer', 'Has a timer'],
  ]) {
    if (!entry[flag]) continue;
    const mark = document.createElement('span');
    mark.className = 'mark';
    mark.textContent = label;
    mark.title = title;
    marks.append(mark);
  }

  const actions = row.insertCell();
  actions.className = 'actions';
  if (SCRIPT_EXTENSIONS.includes(ext) && !isFolder) {
    actions.append(button('Play', () => act(
      () => callJson(route('/control/start_playing', { path })), `Playing ${path}.`)));
  }
  if (!isFolder && ext !== 'e' && TEXT_ICONS.includes(entry.iconName)) {
    actions.append(button('Edit', () => { location.href = route('/file/edit', { path }); }));
  }
  actions.append(button('Rename', async () => {
    const newName = await askName(`Rename ${name} to:`, name);
    if (newName === null || newName === name) return;
    const newPath = join(parentOf(path), newName);
    await act(() => callJson(route('/file/rename', { path, newPath })), `Renamed to ${newPath}.`);
  }));
  actions.append(button('Delete', async () => {
    const what = isFolder ? `the folder ${path} and everything in it` : path;
    if (!(await ask(`Delete ${what}? This cannot be undone.`, { ok: 'Delete' }))) return;
    await act(() => callJson(route('/file/delete', { path })), `Deleted ${path}.`);
  }, 'danger'));
  return row;
}

let loading = 0;
async function load() {
  const folder = currentFolder();
  const ticket = ++loading;
  renderCrumbs(folder);
  document.title = `Tapwright: ${folder}`;
  let files;
  try {
    ({ files } = await callJson(route('/files', { path: folder })));
  } catch (err) {
    files = [];
    show(message, err.message, 'error');
  }
  if (ticket !== loading) return;  // a later folder was opened meanwhile
  const body = $('files').tBodies[0];
  body.replaceChildren(...(files || []).map(renderEntry));
  $('empty').hidden = body.rows.length > 0;
  $('files').dataset.loaded = folder;
}

// Sends one file to the current folder with a progress bar; resolves to the server's message.
function upload(file, folder) {
  const progress = $('upload-progress');
  return new Promise((resolve, reject) => {
    const xhr = new XMLHttpRequest();
    xhr.open('POST', route('/file/upload', { path: join(folder, file.name) }));
    xhr.upload.addEventListener('progress', (e) => {
      if (e.lengthComputable) progress.value = e.loaded / e.total;
    });
    xhr.addEventListener('load', () => {
      if (xhr.status !== 200) {
        return reject(new Error(`Upload of ${file.name} failed: ${xhr.status} ${xhr.statusText}`));
      }
      // The answer is a small page: <h2>MESSAGE</h2>...
      const page = new DOMParser().parseFromString(xhr.responseText, 'text/html');
      const text = (page.querySelector('h2')?.textContent || xhr.responseText).trim();
      if (text === 'Successful!') resolve(`Uploaded ${file.name}.`);
      else reject(new Error(`Upload of ${file.name}: ${text}`));
    });
    xhr.addEventListener('error', () => reject(new Error(`Upload of ${file.name} failed: the device did not answer.`)));
    const form = new FormData();
    form.append('file', file, file.name);
    progress.value = 0;
    progress.hidden = false;
    xhr.send(form);
  });
}

$('upload-input').addEventListener('change', async (event) => {
  const input = event.target;
  const folder = currentFolder();
  const done = [];
  const failed = [];
  for (const file of input.files) {
    try {
      done.push(await upload(file, folder));
    } catch (err) {
      failed.push(err.message);
    }
  }
  input.value = '';
  $('upload-progress').hidden = true;
  if (failed.length) show(message, [...failed, ...done].join(' '), 'error');
  else show(message, done.join(' '), 'ok');
  await load();
});

$('upload').addEventListener('click', () => $('upload-input').click());

$('new-file').addEventListener('click', async () => {
  const name = await askName('Name of the new script:', 'untitled.lua');
  if (name === null) return;
  const path = join(currentFolder(), name);
  await act(() => callJson(route('/file/new', { path })), `Created ${path}.`);
});

$('new-folder').addEventListener('click', async () => {
  const name = await askName('Name of the new folder:', 'New folder');
  if (name === null) return;
  const path = join(currentFolder(), name);
  await act(() => callJson(route('/file/newFolder', { path })), `Created ${path}.`);
});

$('ask-cancel').addEventListener('click', () => $('ask').close('cancel'));
window.addEventListener('hashchange', () => { show(message, ''); load(); });
load();
