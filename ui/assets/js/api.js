// Transport of the web API: one POST per call to /webapi/entry with the request
// envelope, and the reply envelope turned into data or an ApiError.

export const ENTRY_PATH = '/webapi/entry';
export const CSRF_HEADER = 'X-ORVA-CSRF';

// Codes of failures that never reached a module: the server could not be reached,
// or it answered something that is not a reply envelope.
export const ERR_NETWORK = -1;
export const ERR_HTTP = -2;
export const ERR_PERMISSION = 105;
export const ERR_NOT_LOGGED_IN = 106;
// Not on this server (an older one): the page does without what needs it.
export const isMissingApi = (err) => err instanceof ApiError && [102, 103, 104].includes(err.code);

export class ApiError extends Error {
  constructor({ code, msg = '', status = 0, data = null }) {
    super(msg || `web API error ${code}`);
    this.name = 'ApiError';
    this.code = code;
    this.msg = msg;
    this.status = status;
    this.data = data;
  }
}

export function buildRequest(api, version, method, params, lang) {
  const req = { api, version, method, params: params ?? {} };
  if (lang) req.lang = lang;
  return req;
}

// Reads one reply. Returns {ok: true, data} or {ok: false, error: ApiError}.
export function parseReply(status, text) {
  let body;
  try {
    body = JSON.parse(text);
  } catch {
    return { ok: false, error: new ApiError({ code: ERR_HTTP, status }) };
  }
  if (body === null || typeof body !== 'object' || typeof body.success !== 'boolean') {
    return { ok: false, error: new ApiError({ code: ERR_HTTP, status }) };
  }
  if (body.success) return { ok: true, data: body.data === undefined ? null : body.data };
  const err = body.error;
  if (err === null || typeof err !== 'object' || !Number.isInteger(err.code)) {
    return { ok: false, error: new ApiError({ code: ERR_HTTP, status }) };
  }
  const { code, msg, ...rest } = err;
  let data = null;
  if (Object.hasOwn(rest, 'data')) data = rest.data;
  else if (Object.keys(rest).length > 0) data = rest;
  const text2 = typeof msg === 'string' ? msg : '';
  return { ok: false, error: new ApiError({ code, msg: text2, status, data }) };
}

// The message to show for a failure: the page's own text for the code, in the page's
// language (the server's "msg" is English and for the log; it is never shown).
export function errorText(err, t) {
  if (!(err instanceof ApiError)) return t('err.unknown', { code: '?' });
  if (err.code === ERR_NETWORK) return t('err.network');
  if (err.code === ERR_HTTP) return t('err.http', { status: err.status });
  const key = `err.${err.code}`;
  const text = t(key);
  return text === key ? t('err.unknown', { code: err.code }) : text;
}

export class ApiClient {
  // sharedCsrf(): the CSRF token another tab of the same browser signed in with, if
  // any; a 105 under an older token is retried once under it.
  constructor({ fetchImpl, path = ENTRY_PATH, lang = '', csrf = '', onSessionLost = null, onDenied = null, sharedCsrf = null } = {}) {
    this.fetchImpl = fetchImpl ?? ((...a) => globalThis.fetch(...a));
    this.path = path;
    this.lang = lang;
    this.csrf = csrf;
    this.onSessionLost = onSessionLost;
    this.onDenied = onDenied;
    this.sharedCsrf = sharedCsrf;
  }

  async call(api, version, method, params) {
    try {
      return await this.call1(api, version, method, params);
    } catch (err) {
      if (!(err instanceof ApiError) || err.code !== ERR_PERMISSION || api === 'ORVA.API.Auth') throw err;
      const shared = this.sharedCsrf ? this.sharedCsrf() : '';
      if (shared && shared !== this.csrf) {
        this.csrf = shared;
        return this.call1(api, version, method, params);
      }
      if (this.onDenied) this.onDenied(err);
      throw err;
    }
  }

  async call1(api, version, method, params) {
    const headers = { 'Content-Type': 'application/json' };
    if (this.csrf) headers[CSRF_HEADER] = this.csrf;
    let res;
    try {
      res = await this.fetchImpl(this.path, {
        method: 'POST',
        headers,
        body: JSON.stringify(buildRequest(api, version, method, params, this.lang)),
        credentials: 'same-origin',
        cache: 'no-store',
      });
    } catch {
      throw new ApiError({ code: ERR_NETWORK });
    }
    let text;
    try {
      text = await res.text();
    } catch {
      throw new ApiError({ code: ERR_NETWORK, status: res.status });
    }
    const reply = parseReply(res.status, text);
    if (!reply.ok) {
      if (reply.error.code === ERR_NOT_LOGGED_IN && this.onSessionLost && !(api === 'ORVA.API.Auth' && method === 'login')) {
        this.onSessionLost(reply.error);
      }
      throw reply.error;
    }
    return reply.data;
  }

  // credentials: {account, passwd} or {token}. Keeps the CSRF token for later calls.
  async login(credentials) {
    this.csrf = '';
    const data = await this.call('ORVA.API.Auth', 1, 'login', credentials);
    if (!data || typeof data.csrf_token !== 'string' || data.csrf_token === '') {
      throw new ApiError({ code: ERR_HTTP, status: 200 });
    }
    this.csrf = data.csrf_token;
    return data;
  }

  async logout() {
    try {
      await this.call('ORVA.API.Auth', 1, 'logout', {});
    } finally {
      this.csrf = '';
    }
  }

  whoami() {
    return this.call('ORVA.API.Auth', 1, 'whoami', {});
  }
}

// Takes the login token out of a page address. Returns {token, cleanUrl}; token is
// '' when the address carries none. Other query members and the fragment stay.
export function takeLoginToken(href) {
  const url = new URL(href);
  const token = url.searchParams.get('token') ?? '';
  url.searchParams.delete('token');
  return { token, cleanUrl: url.pathname + url.search + url.hash };
}
