// Helpers shared by the library page and the editor: library paths and the device's JSON routes.

// "/a/b.lua" -> "/a"; "/b.lua" -> "/".
export function parentOf(path) {
  const cut = path.lastIndexOf('/');
  return cut <= 0 ? '/' : path.slice(0, cut);
}

export function nameOf(path) {
  return path.slice(path.lastIndexOf('/') + 1);
}

export function join(folder, name) {
  return (folder.endsWith('/') ? folder : folder + '/') + name;
}

export function extensionOf(path) {
  const name = nameOf(path);
  const dot = name.lastIndexOf('.');
  return dot > 0 ? name.slice(dot + 1).toLowerCase() : '';
}

// "/file/new" + {path: "/a b.lua"} -> "/file/new?path=%2Fa%20b.lua".
export function route(base, params) {
  const query = Object.entries(params)
    .map(([key, value]) => `${key}=${encodeURIComponent(value)}`).join('&');
  return query ? `${base}?${query}` : base;
}

// Sends a request and reads its JSON answer. A {"status":"fail"} answer, an HTTP error or an
// answer that is not JSON throws an Error whose message is meant for the user.
export async function callJson(url, init) {
  let response;
  try {
    response = await fetch(url, init);
  } catch (err) {
    throw new Error(`The device did not answer (${err.message}).`);
  }
  const text = await response.text();
  if (!response.ok) throw new Error(`The device answered ${response.status} ${response.statusText}: ${text.slice(0, 200)}`);
  let reply;
  try {
    reply = JSON.parse(text);
  } catch {
    throw new Error(`The device's answer is not JSON: ${text.slice(0, 200)}`);
  }
  if (reply.status === 'fail') throw new Error(reply.info || 'The device refused without a reason.');
  return reply;
}

// Shows a message in an element; kind is "ok", "error" or "" (neutral). An empty text hides it.
export function show(element, text, kind = '') {
  element.textContent = text;
  element.className = kind;
  element.hidden = !text;
}
