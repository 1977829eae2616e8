import assert from 'node:assert/strict';
import {writeFileSync} from 'node:fs';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    USER_AGENT, answer, assertRequestFailed, json, redirect, reply, startDevice, startServer,
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

    test('a GET with JSON', async (t) => {
        const server = await startTls(t, json({}));
        succeeded(await startDevice(t).getJson(`${server.url}a?b=1`));
        assert.deepEqual(server.requests, [bytes(server, 'GET /a?b=1 HTTP/1.1')]);
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

    test('a request for the login challenge', async (t) => {
        const server = await startTls(t, redirect('/login?login_challenge=c%201&other=2'));
        const {probe, cookies} = startDevice(t);
        const url = `${server.url}authorize?client_id=nas&state=s`;
        assert.equal(succeeded(await probe.challenge({url, cookies})), 'c 1');
        assert.deepEqual(server.requests,
            [bytes(server, 'GET /authorize?client_id=nas&state=s HTTP/1.1')]);
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

    const ownHeaders = (sent) => sent.filter((line) => !/^(Host|User-Agent|Accept): /.test(line));

    test('are sent in the order of their names, byte by byte', async (t) => {
        const [sent] = await headersSent(t, {headers: {b: '2', a: '1', B: '3', 'a-': '4'}});
        assert.deepEqual(ownHeaders(sent), ['B: 3', 'a: 1', 'a-: 4', 'b: 2']);
    });

    test('of a POST stay with the object and are sent with its GETs', async (t) => {
        const sent = await headersSent(t, {}, {op: 'post', body: 'a=1'}, {},
            {op: 'get', follow: false});
        assert.deepEqual(sent.map(ownHeaders), [[], [...FORM, 'Content-Length: 3'], FORM, FORM]);
    });

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

describe('The user agent', CONCURRENCY, () => {
    test('is the device\'s own', async (t) => {
        const server = await startServer(t, json({}));
        const device = startDevice(t, {profile: {user_agent: 'Other/1 (a; b) "c"'}});
        succeeded(await device.getJson(server.url));
        assert.match(server.requests[0], /\r\nUser-Agent: Other\/1 \(a; b\) "c"\r\n/);
    });

    test('of 255 bytes is sent whole', async (t) => {
        const server = await startServer(t, json({}));
        const name = 'x'.repeat(255);
        succeeded(await startDevice(t, {profile: {user_agent: name}}).getJson(server.url));
        assert.ok(server.requests[0].includes(`\r\nUser-Agent: ${name}\r\n`));
    });

    for (const [what, name] of [['missing', undefined], ['of 256 bytes', 'x'.repeat(256)]]) {
        test(`that is ${what} is failure 18, before any request`, async (t) => {
            const server = await startServer(t, json({}));
            const device = startDevice(t, {profile: {user_agent: name}});
            for (const answered of [
                await device.get(server.url), await device.getJson(server.url),
                await device.post(server.url, ''),
            ]) {
                assertRequestFailed(answered, server.url, 18, 'Failed to get Orbalon usergent');
            }
            assert.equal(server.arrivals.length, 0);
        });
    }
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

    test('is sent after a second when the server says nothing', async (t) => {
        const server = await startServer(t, json({}));
        const answered = await startDevice(t).post(server.url, BODY);
        succeeded(answered);
        assert.ok(server.requests[0].endsWith(`\r\n\r\n${BODY}`));
        assert.ok(answered.seconds >= 0.9, `took ${answered.seconds} s`);
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

    test('is sent again without the announcement when the server does not know it', async (t) => {
        const server = await startServer(t, async (connection) => {
            await connection.head();
            connection.socket.write('HTTP/1.1 417 No\r\nContent-Length: 0\r\n\r\n');
            await answer(json({}))(connection);
        });
        succeeded(await startDevice(t).post(server.url, BODY));
        assert.deepEqual(server.requests,
            [bytes(server, 'POST / HTTP/1.1', {headers: FORM, body: BODY})]);
    });
});
