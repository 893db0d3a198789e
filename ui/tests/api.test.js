import { test } from 'node:test';
import assert from 'node:assert/strict';
import {
  ApiClient, ApiError, parseReply, errorText, buildRequest, takeLoginToken, ERR_NETWORK, ERR_HTTP,
} from '../assets/js/api.js';
import { translator } from '../assets/js/i18n.js';
import { texts } from './texts.js';

const t = translator('en', texts.en);

test('parseReply reads both envelopes and refuses anything else', () => {
  const cases = [
    { name: 'success with data', status: 200, body: '{"success":true,"data":{"id":4}}', ok: true, data: { id: 4 } },
    { name: 'success without data', status: 200, body: '{"success":true}', ok: true, data: null },
    { name: 'module error with extra members', status: 200, body: '{"success":false,"error":{"code":4802,"msg":"m","task":3}}', code: 4802, msg: 'm', data: { task: 3 } },
    { name: 'module error with non-object data', status: 200, body: '{"success":false,"error":{"code":117,"data":[1,2]}}', code: 117, msg: '', data: [1, 2] },
    { name: 'msg that is not a string', status: 200, body: '{"success":false,"error":{"code":4800,"msg":7}}', code: 4800, msg: '', data: null },
    { name: 'code 0 from a handler that recorded nothing', status: 200, body: '{"success":false,"error":{"code":0}}', code: 0, msg: '', data: null },
    { name: 'not JSON', status: 502, body: '<html>Bad gateway</html>', code: ERR_HTTP },
    { name: 'no success flag', status: 200, body: '{"data":1}', code: ERR_HTTP },
    { name: 'success as text', status: 200, body: '{"success":"true","data":1}', code: ERR_HTTP },
    { name: 'error without code', status: 200, body: '{"success":false,"error":{"msg":"x"}}', code: ERR_HTTP },
    { name: 'fractional code', status: 200, body: '{"success":false,"error":{"code":1.5}}', code: ERR_HTTP },
  ];
  for (const c of cases) {
    const r = parseReply(c.status, c.body);
    assert.equal(r.ok, Boolean(c.ok), c.name);
    if (c.ok) assert.deepEqual(r.data, c.data, c.name);
    else {
      assert.ok(r.error instanceof ApiError, c.name);
      assert.equal(r.error.code, c.code, c.name);
      assert.equal(r.error.status, c.status, c.name);
      if ('msg' in c) assert.equal(r.error.msg, c.msg, c.name);
      if ('data' in c) assert.deepEqual(r.error.data, c.data, c.name);
    }
  }
});

test('errorText: the page text for the code, never the English message of the server', () => {
  const cases = [
    [new ApiError({ code: 4801, msg: 'Failed to get task' }), t('err.4801')],
    [new ApiError({ code: 105 }), t('err.105')],
    [new ApiError({ code: 9999 }), 'The operation failed (error 9999).'],
    [new ApiError({ code: ERR_NETWORK }), t('err.network')],
    [new ApiError({ code: ERR_HTTP, status: 502 }), 'The server answered with an unexpected reply (HTTP 502).'],
    [new Error('boom'), 'The operation failed (error ?).'],
  ];
  for (const [err, want] of cases) assert.equal(errorText(err, t), want);
  const de = translator('de', texts.de, texts.en);
  assert.equal(errorText(new ApiError({ code: 4804, msg: 'Failed to save task' }), de), 'Die Aufgabe konnte nicht gespeichert werden.');
});

// A fetch that records each request and answers from a queue.
function recorder(replies) {
  const calls = [];
  const fetchImpl = async (url, init) => {
    calls.push({ url, init, body: JSON.parse(init.body) });
    const r = replies.shift();
    if (r instanceof Error) throw r;
    return { status: r.status ?? 200, text: async () => (typeof r.body === 'string' ? r.body : JSON.stringify(r.body)) };
  };
  return { calls, fetchImpl };
}

// The CSRF header of every call after the sign-in: every browser scenario (105 without it).
test('requests carry the page language, or none when it is not known', async () => {
  const { calls, fetchImpl } = recorder([{ body: { success: true, data: { csrf_token: 'c5rf' } } }]);
  await new ApiClient({ fetchImpl, lang: 'de' }).login({ token: 'T0K' });
  assert.deepEqual(calls[0].body, { api: 'ORVA.API.Auth', version: 1, method: 'login', params: { token: 'T0K' }, lang: 'de' });
  assert.deepEqual(buildRequest('A', 1, 'whoami', undefined, ''), { api: 'A', version: 1, method: 'whoami', params: {} });
});

test('login without a CSRF token in the reply fails and keeps none', async () => {
  for (const data of [null, {}, { csrf_token: '' }, { csrf_token: 5 }]) {
    const { fetchImpl } = recorder([{ body: { success: true, data } }]);
    const client = new ApiClient({ fetchImpl, csrf: 'old' });
    await assert.rejects(client.login({ account: 'a', passwd: 'b' }), (e) => e.code === ERR_HTTP);
    assert.equal(client.csrf, '');
  }
});

test('a lost session is reported, except for a refused login', async () => {
  const lost = [];
  const refusal = (status, code) => ({ status, body: { success: false, error: { code } } });
  const { fetchImpl } = recorder([refusal(401, 106), refusal(401, 106), refusal(403, 105)]);
  const client = new ApiClient({ fetchImpl, onSessionLost: (e) => lost.push(e.code) });
  await assert.rejects(client.call('ORVA.Core.TaskScheduler', 2, 'list', {}), (e) => e.code === 106);
  await assert.rejects(client.login({ account: 'x', passwd: 'y' }), (e) => e.code === 106);
  await assert.rejects(client.call('ORVA.Core.TaskScheduler', 2, 'list', {}), (e) => e.code === 105);
  assert.deepEqual(lost, [106]);
});

test('network failures and logout', async () => {
  const { calls, fetchImpl } = recorder([new TypeError('Failed to fetch'), { status: 500, body: 'oops' }]);
  const client = new ApiClient({ fetchImpl, csrf: 'c' });
  await assert.rejects(client.call('A', 1, 'm', {}), (e) => e instanceof ApiError && e.code === ERR_NETWORK);
  // Logout forgets the token even when the server does not answer properly.
  await assert.rejects(client.logout(), (e) => e.code === ERR_HTTP && e.status === 500);
  assert.equal(client.csrf, '');
  assert.equal(calls[1].body.method, 'logout');
});

test('takeLoginToken strips only the token', () => {
  const cases = [
    ['http://127.0.0.1:5080/?token=abc', 'abc', '/'],
    ['http://h/?token=abc&x=1#frag', 'abc', '/?x=1#frag'],
    ['http://h/index.html?x=1&token=a%2Bb', 'a+b', '/index.html?x=1'],
    ['http://h/?x=token', '', '/?x=token'],
  ];
  for (const [href, token, clean] of cases) assert.deepEqual(takeLoginToken(href), { token, cleanUrl: clean }, href);
});
