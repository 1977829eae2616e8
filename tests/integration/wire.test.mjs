import assert from 'node:assert/strict';
import {readFileSync, writeFileSync} from 'node:fs';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    USER_AGENT, assertTransferFailed, drop, json, pathOf, redirect, reply, startDevice, startServer,
    succeeded,
} from './lab.mjs';

const CONCURRENCY = {concurrency: 8};
const FORM = ['Content-Type: application/x-www-form-urlencoded', 'charset: utf-8'];

// The exact bytes of a request, as latin1 text.
function bytes(server, line, {cookie, headers = [], body} = {}) {
    return [
        line, `Host: 127.0.0.1:${server.port}`, `User-Agent: ${USER_AGENT}`, 'Accept: */*',
        ...(cookie ? [`Cookie: ${cookie}`] : []), ...headers,
        ...(body === undefined ? [] : [`Content-Length: ${body.length}`]), '', body ?? '',
    ].join('\r\n');
}

function startTls(t, script) {
    return startServer(t, script, {tls: GOOD});
}

describe('On the wire', CONCURRENCY, () => {
    test('a GET without JSON', async (t) => {
        const server = await startTls(t, reply(204));
        const device = startDevice(t);
        succeeded(await device.get(`${server.url}a/b?c=1&d=%20#fragment`));
        succeeded(await device.get(server.url.slice(0, -1), {follow: true}));
        assert.deepEqual(server.requests, [
            bytes(server, 'GET /a/b?c=1&d=%20 HTTP/1.1'), bytes(server, 'GET / HTTP/1.1'),
        ]);
    });

    test('a POST', async (t) => {
        const server = await startTls(t, reply(200, {headers: ['Set-Cookie: s=1'], body: '{}'}));
        const device = startDevice(t);
        const body = 'a=1&b=x y&c=%20&d=\u00e9'; // as it is, whatever a form should look like
        succeeded(await device.post(`${server.url}token?a=1`, body));
        succeeded(await device.post(`${server.url}token`, ''));
        const sent = Buffer.from(body).toString('latin1');
        assert.deepEqual(server.requests, [
            bytes(server, 'POST /token?a=1 HTTP/1.1', {headers: FORM, body: sent}),
            bytes(server, 'POST /token HTTP/1.1', {cookie: 's=1', headers: FORM, body: ''}),
        ]);
    });

    test('a POST that ends at its first NUL byte', async (t) => {
        const server = await startTls(t, json({}));
        succeeded(await startDevice(t).post(server.url, 'a=1\0&b=2'));
        assert.deepEqual(server.requests,
            [bytes(server, 'POST / HTTP/1.1', {headers: FORM, body: 'a=1'})]);
    });

    test('the requests along a chain of redirects', async (t) => {
        const first = reply(302, {headers: ['Set-Cookie: s=1; Path=/', 'Location: two?a=1']});
        const callback = 'https://nas.localhost/callback?code=c%2F1&state=s';
        const server = await startTls(t, [first, redirect('/three', 303), redirect(callback)]);
        const {probe, cookies} = startDevice(t);
        const url = `${server.url}authorize?redirect_uri=https%3A%2F%2Fnas.localhost%2Fcallback`;
        const answered = await probe.redirects({
            url, cookies, reply: {redirect_to: `${server.url}one/page`},
        });
        assert.equal(succeeded(answered), callback);
        assert.deepEqual(server.requests, [
            bytes(server, 'GET /one/page HTTP/1.1'),
            bytes(server, 'GET /one/two?a=1 HTTP/1.1', {cookie: 's=1'}),
            bytes(server, 'GET /three HTTP/1.1', {cookie: 's=1'}),
        ]);
    });

    // libcurl puts a slash before the query, so the redirect does not hold the callback any more.
    test('a callback that libcurl writes in another way, and misses', async (t) => {
        const server = await startTls(t, redirect('app://cb?x=1&code=1'));
        const {probe, cookies} = startDevice(t);
        const answered = await probe.redirects({
            url: `${server.url}?redirect_uri=app%3A%2F%2Fcb%3Fx%3D1`, cookies, reply: {redirect_to: server.url},
        });
        assertTransferFailed(answered, 'app://cb/?x=1&code=1', 26, 1);
    });

    test('an exchange of a code', async (t) => {
        const server = await startTls(t, json({}));
        const device = startDevice(t);
        succeeded(await device.probe.exchange({
            tokenFile: device.path('tokens'), url: `${server.url}token`, clientId: 'cid',
            code: 'abc', verifier: 'xyz', redirectUri: 'app://cb',
        }));
        const body = 'grant_type=authorization_code&code=abc&client_id=cid' +
            '&redirect_uri=app://cb&code_verifier=xyz';
        assert.deepEqual(server.requests,
            [bytes(server, 'POST /token HTTP/1.1', {headers: FORM, body})]);
    });

    test('a refresh', async (t) => {
        const server = await startTls(t, json({}));
        const device = startDevice(t);
        writeFileSync(device.path('tokens'), '{"access_token": "a1", "refresh_token": "r1"}');
        succeeded(await device.probe.refresh({
            tokenFile: device.path('tokens'), url: `${server.url}token`, clientId: 'cid',
        }));
        const body = 'grant_type=refresh_token&refresh_token=r1&client_id=cid';
        assert.deepEqual(server.requests,
            [bytes(server, 'POST /token HTTP/1.1', {headers: FORM, body})]);
    });
});

test('The token operations, in any process, share one cookie file and follow no redirect', async (t) => {
    const elsewhere = reply(302, {headers: ['Set-Cookie: token_session=1', 'Location: /other'], body: '{"a": 1}'});
    const server = await startTls(t, [elsewhere, drop]);
    const [first, other] = [startDevice(t), startDevice(t)];
    const request = {tokenFile: first.path('tokens'), url: `${server.url}token`, clientId: 'cid'};
    succeeded(await first.probe.exchange({...request, code: 'c', verifier: 'v', redirectUri: 'app://cb'}));
    assert.match(readFileSync('/tmp/oa_pkce_cookies.txt', 'utf8'), /\ttoken_session\t1\n/);
    assertTransferFailed(await other.probe.refresh(request), request.url, 26, 52);
    assert.equal(readFileSync(request.tokenFile, 'utf8'), '{\n\t"a" : 1\n}\n');
    assert.deepEqual(server.requests.map(pathOf), Array(4).fill('/token'));
    assert.match(server.requests[1], /\r\nCookie: token_session=1\r\n/);
});

describe('Headers', CONCURRENCY, () => {
    // What each request of one object sends, for its operation and its own new headers.
    async function headersSent(t, ...requests) {
        const server = await startServer(t, json({}));
        const {probe, cookies} = startDevice(t);
        for (const {op = 'getJson', ...more} of requests) {
            succeeded(await probe[op]({client: 'one', url: server.url, cookies, ...more}));
        }
        return server.requests.map((request) => request.split('\r\n').slice(1, -2));
    }

    test('replace those of the transfer', async (t) => {
        const headers = {Accept: 'a/json', 'User-Agent': 'other', Host: 'other.localhost'};
        const [sent] = await headersSent(t, {headers});
        assert.deepEqual(sent,
            ['Host: other.localhost', 'Accept: a/json', 'User-Agent: other']);
    });

    test('without a value are not sent, and take away those of the transfer', async (t) => {
        const [sent] = await headersSent(t, {headers: {Accept: '', 'X-Empty': ''}});
        assert.deepEqual(sent.slice(1), [`User-Agent: ${USER_AGENT}`]);
    });

    test('follow those of the transfer, and precede the length', async (t) => {
        const [, sent] = await headersSent(t, {},
            {op: 'post', body: 'a=1', headers: {Authorization: 'Bearer t'}});
        assert.deepEqual(sent.slice(1), [`User-Agent: ${USER_AGENT}`, 'Accept: */*',
            'Authorization: Bearer t', ...FORM, 'Content-Length: 3']);
    });
});

describe('A connection', CONCURRENCY, () => {
    test('serves one request, though the server would keep it', async (t) => {
        const server = await startServer(t, async (connection) => {
            await connection.request();
            connection.socket.write('HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}');
            await connection.closed;
        });
        const {probe} = startDevice(t);
        for (const op of ['getJson', 'getJson', 'get']) {
            succeeded(await probe[op]({client: 'one', url: server.url, follow: false}));
        }
        assert.deepEqual([server.arrivals.length, server.requests.length], [3, 3]);
    });
});

describe('A body of more than 1 MB', CONCURRENCY, () => {
    const BODY = `a=${'x'.repeat(2 * 1024 * 1024)}`;

    test('is announced with Expect: 100-continue, and sent when the server says so', async (t) => {
        const heads = [];
        const server = await startServer(t, async (connection) => {
            heads.push(await connection.head());
            connection.socket.write('HTTP/1.1 100 Continue\r\n\r\n');
            const body = await connection.take((got) =>
                (got.length >= BODY.length ? got : undefined));
            connection.socket.end(json({same: body === BODY}));
        });
        const answered = await startDevice(t).post(server.url, BODY);
        assert.deepEqual(succeeded(answered), {same: true});
        const announced = [...FORM, `Content-Length: ${BODY.length}`, 'Expect: 100-continue'];
        assert.deepEqual(heads, [bytes(server, 'POST / HTTP/1.1', {headers: announced})]);
    });

    test('is not sent when the server refuses it', async (t) => {
        const server = await startServer(t, async (connection) => {
            await connection.head();
            connection.socket.end(reply(413));
        });
        const answered = await startDevice(t).post(server.url, BODY);
        assert.deepEqual([answered.code, answered.status], [14, 413]);
        assert.equal(server.arrivals.length, 1);
    });
});
