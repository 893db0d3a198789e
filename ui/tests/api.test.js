import { test } from 'node:test';
import assert from 'node:assert/strict';
import { ApiClient, ApiError, parseReply, errorText, ERR_NETWORK, ERR_HTTP } from '../assets/js/api.js';
import { translator } from '../assets/js/i18n.js';
import { texts } from './texts.js';

test('parseReply reads both envelopes and refuses anything else', () => {
  const cases = [
    [200, '{"success":true,"data":{"id":4}}', { ok: true, data: { id: 4 } }],
    [200, '{"success":true}', { ok: true, data: null }],
    [200, '{"success":false,"error":{"code":4802,"msg":"m"}}', { code: 4802 }],
    [502, '<html>Bad gateway</html>', { code: ERR_HTTP }],
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
    [new ApiError({ code: ERR_NETWORK }), t('err.network')],
    [new ApiError({ code: ERR_HTTP, status: 502 }), 'The server answered with an unexpected reply (HTTP 502).'],
  ];
  for (const [err, want] of cases) assert.equal(errorText(err, t), want);
});

// A session that ends is the editor scenario's (it signs in again and saves).
test('logout forgets the token whatever the reply; an unreachable server is a network error', async () => {
  const client = new ApiClient({ fetchImpl: async () => ({ status: 500, text: async () => 'oops' }), csrf: 'c' });
  await assert.rejects(client.logout(), (e) => e.code === ERR_HTTP && e.status === 500);
  assert.equal(client.csrf, '');
  const offline = new ApiClient({ fetchImpl: async () => { throw new TypeError('Failed to fetch'); } });
  await assert.rejects(offline.call('A', 1, 'm', {}), (e) => e.code === ERR_NETWORK);
});
