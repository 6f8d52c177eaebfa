// Calls to /webapi. The session cookie is sent by the browser; the token
// from login goes in the X-Kova-Token header of every call, which is what
// keeps pages of other sites from acting with this session.
export class ApiError extends Error {
  constructor(code, data) {
    super(`error ${code}`);
    this.code = code;
    this.data = data;
  }
}

const TOKEN_KEY = 'kova-token';
let lostHandler = () => {};

export function onSessionLost(fn) { lostHandler = fn; }
export function hasToken() { return !!sessionStorage.getItem(TOKEN_KEY); }

export async function call(api, version, method, params = {}) {
  let res;
  try {
    res = await fetch('/webapi', {
      method: 'POST',
      credentials: 'same-origin',
      headers: { 'Content-Type': 'application/json', 'X-Kova-Token': sessionStorage.getItem(TOKEN_KEY) || '' },
      body: JSON.stringify({ api, version, method, params }),
    });
  } catch (e) {
    throw new ApiError(-1);  // network down or server gone
  }
  let body;
  try {
    body = await res.json();
  } catch (e) {
    throw new ApiError(res.status >= 500 ? 160 : 101);
  }
  if (!body.success) {
    const code = body.error ? body.error.code : 100;
    if (code === 119 || code === 120) lostHandler();
    throw new ApiError(code, body.error ? body.error.data : undefined);
  }
  return body.data;
}

export async function login(account, passwd) {
  const data = await call('KOVA.Server.Session', 1, 'login', { account, passwd });
  sessionStorage.setItem(TOKEN_KEY, data.token);
  return data;
}

export async function logout() {
  try { await call('KOVA.Server.Session', 1, 'logout'); } finally { sessionStorage.removeItem(TOKEN_KEY); }
}

// Items are named by share path ("/share/dir/item") both ways: the server
// resolves them for the rules calls, so the page never needs the server's
// absolute paths.
export const acl = (method, params = {}, version = 1) => call('KOVA.Core.ACL', version, method, { ...params, share_paths: true });
export const files = (method, params = {}) => call('KOVA.Server.Files', 1, method, params);
