import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {
    assertTransferFailed, drop, json, libcurlFrom, pathOf, redirect, reply, reset, startDevice,
    startServer, succeeded,
} from './lab.mjs';

const GREETING = json({hello: 'device'});
const CONCURRENCY = {concurrency: 24}; // a failed request is a second of waiting
const PAUSE = 499; // ms: half a second, less what clocks round

// How long after each connection the next one came. The attempts themselves take next to no time
// here, so these are the pauses.
function pauses({arrivals}) {
    return arrivals.slice(1).map((time, index) => time - arrivals[index]);
}

// No upper bound: with so many tests at once, the machine may be late.
function assertPauses(server, count) {
    const taken = pauses(server);
    assert.equal(taken.length, count);
    for (const pause of taken) assert.ok(pause >= PAUSE, `paused for ${pause} ms`);
}

function assertTwoPauses(answered) {
    assert.ok(answered.seconds >= 1, `took ${answered.seconds} s`);
}

function startNamedServer(t, script, hosts) {
    return startServer(t, script, {hosts, name: 'localhost'});
}

describe('A transfer that fails three times', CONCURRENCY, () => {
    const HEAD = 'HTTP/1.1 200 OK\r\n';
    const faults = [
        ['because the connection is closed without a reply', drop, 52],
        ['because the connection is reset without a reply', reset, 56],
        ['because the body is cut short', `${HEAD}Content-Length: 20\r\n\r\n{"cut":`, 18],
        ['because the chunked body is cut short',
            `${HEAD}Transfer-Encoding: chunked\r\n\r\n7\r\n{"cut":\r\n`, 18],
        ['because the transfer encoding is unknown',
            `${HEAD}Transfer-Encoding: odd\r\n\r\n{}`, 61],
        ['because the status line is garbage', 'rubbish\r\n\r\n', 1],
        ['because a header has no colon', `${HEAD}no colon here\r\n\r\n{}`, 8],
        ['because a header line is longer than 100 KiB',
            `${HEAD}X-Long: ${'x'.repeat(101 * 1024)}\r\n\r\n{}`, libcurlFrom(8, 6) ? 100 : 27],
    ];
    for (const [cause, script, curlResult] of faults) {
        test(`${cause} ends with code 26`, async (t) => {
            const server = await startServer(t, script);
            const answered = await startDevice(t).getJson(server.url);
            assertTransferFailed(answered, server.url, 26, curlResult);
            assertPauses(server, 2);
            assertTwoPauses(answered);
        });
    }

    test('because nobody listens ends with code 26', async (t) => {
        const url = 'http://127.0.0.1:1/'; // a port below 1024 is not handed out to programs
        const answered = await startDevice(t).getJson(url);
        assertTransferFailed(answered, url, 26, 7);
        assertTwoPauses(answered);
    });

    // A label of more than 63 letters: no resolver sends such a question anywhere.
    const UNKNOWN = `http://${'x'.repeat(64)}.test/`;

    test('because the name does not resolve ends with code 31', async (t) => {
        const answered = await startDevice(t).getJson(UNKNOWN);
        assertTransferFailed(answered, UNKNOWN, 31, 6);
        assertTwoPauses(answered);
    });

    test('because the name of the proxy does not resolve ends with code 31', async (t) => {
        const server = await startServer(t, GREETING);
        const answered = await startDevice(t, {env: {http_proxy: UNKNOWN}}).getJson(server.url);
        assertTransferFailed(answered, server.url, 31, 5);
        assert.equal(server.arrivals.length, 0);
    });

    test('because the URL is malformed ends with code 26', async (t) => {
        const url = 'http://127.0.0.1:99999/';
        assertTransferFailed(await startDevice(t).get(url), url, 26, 3);
    });
});

describe('A transfer that fails', CONCURRENCY, () => {
    test('once succeeds at the second attempt, after one pause', async (t) => {
        const server = await startServer(t, [drop, GREETING]);
        assert.deepEqual(succeeded(await startDevice(t).getJson(server.url)), {hello: 'device'});
        assertPauses(server, 1);
    });

    // The buffer of the reply is one for all attempts.
    test('in the middle of the body leaves that piece before the body of the next attempt',
        async (t) => {
            const piece = 'HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n[1,';
            const server = await startServer(t, [piece, reply(200, {body: '2]'})]);
            assert.deepEqual(succeeded(await startDevice(t).getJson(server.url)), [1, 2]);
        });

    test('within a chain of redirects repeats the whole chain', async (t) => {
        const paths = [];
        const server = await startServer(t, async (connection) => {
            const path = pathOf(await connection.request());
            paths.push(path);
            connection.socket.end(path === '/' ? redirect('/second') : '');
        });
        const answered = await startDevice(t).get(server.url, {follow: true});
        assertTransferFailed(answered, server.url, 26, 52);
        assert.deepEqual(paths, ['/', '/second', '/', '/second', '/', '/second']);
    });
});

describe('A server', CONCURRENCY, () => {
    // libcurl resolves `localhost` itself; 7.88 puts the IPv4 address first, 8.14 the IPv6 address.
    test('that listens on both is asked over IPv4 by the last attempt', async (t) => {
        const server = await startNamedServer(t, [drop, drop, GREETING], ['::1', '127.0.0.1']);
        succeeded(await startDevice(t).getJson(server.url));
        const first = libcurlFrom(8, 14) ? '::1' : '127.0.0.1';
        assert.deepEqual(server.peers, [first, first, '127.0.0.1']);
    });

    test('that listens on IPv6 only is not reached by the last attempt', async (t) => {
        const server = await startNamedServer(t, [drop, drop, GREETING], ['::1']);
        const answered = await startDevice(t).getJson(server.url);
        assertTransferFailed(answered, server.url, 26, 7);
        assert.deepEqual(server.peers, ['::1', '::1']);
    });
});
