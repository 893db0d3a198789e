import { test } from 'node:test';
import assert from 'node:assert/strict';
import { ApiClient, ApiError, parseReply, errorText, takeLoginToken, ERR_NETWORK, ERR_HTTP } from '../assets/js/api.js';
import { translator } from '../assets/js/i18n.js';
import { texts } from './texts.js';

test('parseReply reads both envelopes and refuses anything else', () => {
  const cases = [
    [200, '{"success":true,"data":{"id":4}}', { ok: true, data: { id: 4 } }],
    [200, '{"success":true}', { ok: true, data: null }],
    [200, '{"success":false,"error":{"code":4802,"msg":"m"}}', { code: 4802 }],
    [502, '<html>Bad gateway</html>', { code: ERR_HTTP }],
    [200, '{"success":"true","data":1}', { code: ERR_HTTP }],
    [200, '{"success":false,"error":{"code":1.5}}', { code: ERR_HTTP }],
  ];
  for (const [status, body, want] of cases) {
    const r = parseReply(status, body);
    if (want.ok) assert.deepEqual(r, want, body);
    else assert.deepEqual([r.error instanceof ApiError, r.error.code, r.error.status], [true, want.code, status], body);
  }
});

test('errorText: the page text for the code, never the English message of the server', () => {
  const t = translator('en', texts.en);
  const cases = [
    [new ApiError({ code: 4801, msg: 'Failed to get task' }), t('err.4801')],
    [new ApiError({ code: 9999 }), 'The operation failed (error 9999).'],
    [new ApiError({ code: ERR_NETWORK }), t('err.network')],
    [new ApiError({ code: ERR_HTTP, status: 502 }), 'The server answered with an unexpected reply (HTTP 502).'],
    [new Error('boom'), 'The operation failed (error ?).'],
  ];
  for (const [err, want] of cases) assert.equal(errorText(err, t), want);
});

test('a lost session is reported, except for a refused login; logout forgets the token whatever the reply', async () => {
  const replies = [[401, { success: false, error: { code: 106 } }], [401, { success: false, error: { code: 106 } }], [500, 'oops']];
  const fetchImpl = async () => {
    const [status, body] = replies.shift();
    return { status, text: async () => (typeof body === 'string' ? body : JSON.stringify(body)) };
  };
  const lost = [];
  const client = new ApiClient({ fetchImpl, csrf: 'c', onSessionLost: (e) => lost.push(e.code) });
  await assert.rejects(client.call('ORVA.Core.TaskScheduler', 2, 'list', {}), (e) => e.code === 106);
  await assert.rejects(client.login({ account: 'x', passwd: 'y' }), (e) => e.code === 106);
  assert.deepEqual(lost, [106]);
  client.csrf = 'c';
  await assert.rejects(client.logout(), (e) => e.code === ERR_HTTP && e.status === 500);
  assert.equal(client.csrf, '');
  const offline = new ApiClient({ fetchImpl: async () => { throw new TypeError('Failed to fetch'); } });
  await assert.rejects(offline.call('A', 1, 'm', {}), (e) => e.code === ERR_NETWORK);
});

test('takeLoginToken strips only the token', () => {
  const cases = [
    ['http://h/?token=abc&x=1#frag', 'abc', '/?x=1#frag'],
    ['http://h/index.html?x=1&token=a%2Bb', 'a+b', '/index.html?x=1'],
    ['http://h/?x=token', '', '/?x=token'],
  ];
  for (const [href, token, clean] of cases) assert.deepEqual(takeLoginToken(href), { token, cleanUrl: clean }, href);
});
