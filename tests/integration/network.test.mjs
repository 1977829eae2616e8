import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {
    answer, assertTransferFailed, drop, json, libcurlFrom, pathOf, redirect, reply, reset,
    startDevice, startServer, succeeded,
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
        ['because the connection is reset without a reply', reset(), 56],
        ['because the connection is reset in the middle of the headers',
            reset(`${HEAD}Content-Ty`), 56],
        ['because the connection is reset in the middle of the body',
            reset(`${HEAD}Content-Length: 20\r\n\r\n{"cut":`), 56],
        ['because the body is cut short', `${HEAD}Content-Length: 20\r\n\r\n{"cut":`, 18],
        ['because the chunked body is cut short',
            `${HEAD}Transfer-Encoding: chunked\r\n\r\n7\r\n{"cut":\r\n`, 18],
        ['because the last chunk is missing',
            `${HEAD}Transfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n`, 18],
        ['because a chunk size is no number',
            `${HEAD}Transfer-Encoding: chunked\r\n\r\nzz\r\n{}\r\n0\r\n\r\n`, 56],
        ['because the transfer encoding is unknown',
            `${HEAD}Transfer-Encoding: odd\r\n\r\n{}`, 61],
        ['because the status line is garbage', 'rubbish\r\n\r\n', 1],
        ['because the reply is binary', Buffer.from([0, 1, 2, 0xff, 0xfe, 0x0a]), 1],
        ['because the status line is of HTTP/1.2', 'HTTP/1.2 200 OK\r\n\r\n{}', 1],
        ['because the status is no number', 'HTTP/1.1 2x0 OK\r\n\r\n{}', 1],
        ['because the status is 000', 'HTTP/1.1 000 None\r\n\r\n{}', 1],
        ['because a header has no colon', `${HEAD}no colon here\r\n\r\n{}`, 8],
        ['because a header holds a NUL byte', `${HEAD}X-Nul: a\0b\r\n\r\n{}`, 8],
        ['because Content-Length is no number', `${HEAD}Content-Length: many\r\n\r\n{}`, 8],
        ['because a header line is longer than 100 KiB',
            `${HEAD}X-Long: ${'x'.repeat(101 * 1024)}\r\n\r\n{}`, libcurlFrom(8, 6) ? 100 : 27],
        ['because the headers are longer than 300 KiB',
            `${HEAD}${`X-Long: ${'x'.repeat(50 * 1024)}\r\n`.repeat(7)}\r\n{}`, 56],
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

    for (const [what, url, curlResult] of [
        ['malformed', 'http://127.0.0.1:99999/', 3],
        ['of an unknown scheme', 'gopher-x://127.0.0.1/', 1],
    ]) {
        test(`because the URL is ${what} ends with code 26`, async (t) => {
            const answered = await startDevice(t).get(url);
            assertTransferFailed(answered, url, 26, curlResult);
            assertTwoPauses(answered);
        });
    }

    test('for different causes is reported by the last one', async (t) => {
        const server = await startServer(t, [drop, reset(), 'rubbish\r\n\r\n']);
        assertTransferFailed(await startDevice(t).get(server.url), server.url, 26, 1);
        assert.equal(server.arrivals.length, 3);
    });

    test('has no status and no redirect', async (t) => {
        const server = await startServer(t, [redirect('/away'), drop]);
        const {probe} = startDevice(t);
        const first = await probe.get({client: 'one', url: server.url, follow: false});
        assert.deepEqual([first.status, first.redirectUrl], [302, `${server.url}away`]);
        const second = await probe.get({client: 'one', follow: false});
        assertTransferFailed(second, server.url, 26, 52);
        // The status is that of the last reply; the redirect is of this request, so there is none.
        assert.deepEqual([second.status, second.redirectUrl], [302, '']);
    });
});

describe('A transfer that fails', CONCURRENCY, () => {
    test('once succeeds at the second attempt, after one pause', async (t) => {
        const server = await startServer(t, [drop, GREETING]);
        assert.deepEqual(succeeded(await startDevice(t).getJson(server.url)), {hello: 'device'});
        assertPauses(server, 1);
    });

    test('twice succeeds at the third attempt, after two pauses', async (t) => {
        const server = await startServer(t, [drop, reset(), GREETING]);
        assert.deepEqual(succeeded(await startDevice(t).getJson(server.url)), {hello: 'device'});
        assertPauses(server, 2);
    });

    test('sends the same POST again', async (t) => {
        const cut = 'HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n';
        const server = await startServer(t, [cut, cut, GREETING]);
        succeeded(await startDevice(t).post(server.url, 'grant_type=none&a=1'));
        assert.equal(server.requests.length, 3);
        assert.match(server.requests[0], /^POST .*\r\n\r\ngrant_type=none&a=1$/s);
        assert.deepEqual(new Set(server.requests).size, 1);
    });

    // The buffer of the reply is one for all attempts.
    test('in the middle of the body leaves that piece before the body of the next attempt',
        async (t) => {
            const piece = 'HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n[1,';
            const server = await startServer(t, [piece, reply(200, {body: '2]'})]);
            assert.deepEqual(succeeded(await startDevice(t).getJson(server.url)), [1, 2]);
        });

    test('keeps the cookies of the failed attempt and sends them with the next', async (t) => {
        const cut = 'HTTP/1.1 200 OK\r\nSet-Cookie: early=1\r\nContent-Length: 9\r\n\r\n{';
        const server = await startServer(t, [cut, reply(204)]);
        succeeded(await startDevice(t).get(server.url));
        assert.match(server.requests[1], /\r\nCookie: early=1\r\n/);
    });

    test('is not repeated for what is a reply, whatever its status', async (t) => {
        const server = await startServer(t, reply(503));
        assert.equal((await startDevice(t).get(server.url)).code, 17);
        assert.equal(server.arrivals.length, 1);
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

describe('A reply', CONCURRENCY, () => {
    test('that ends in the middle of its headers counts as complete', async (t) => {
        const server = await startServer(t, 'HTTP/1.1 200 OK\r\nContent-Ty');
        const device = startDevice(t);
        succeeded(await device.get(server.url));
        assert.equal((await device.getJson(server.url)).code, 2);
        assert.equal(server.arrivals.length, 2);
    });

    // libcurl 7.88 refuses it, 8.14 reads the first three.
    test('whose status has four digits depends on libcurl', async (t) => {
        const server = await startServer(t, 'HTTP/1.1 2000 OK\r\n\r\n{}');
        const answered = await startDevice(t).getJson(server.url);
        if (libcurlFrom(8, 14)) {
            succeeded(answered);
            assert.equal(answered.status, 200);
        } else {
            assertTransferFailed(answered, server.url, 26, 1);
        }
    });

    test('that drips slowly is waited for', async (t) => {
        const server = await startServer(t, async (connection) => {
            await connection.request();
            for (const letter of GREETING.toString()) {
                connection.socket.write(letter);
                await new Promise((resolve) => setTimeout(resolve, 10));
            }
            connection.socket.end();
        });
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), {hello: 'device'});
        assert.equal(server.arrivals.length, 1);
        assert.ok(answered.seconds > 0.9, `took ${answered.seconds} s`);
    });
});

describe('The pause between attempts', () => {
    test('is not shortened by a storm of signals', async (t) => {
        const device = startDevice(t);
        let storm;
        let signals = 0;
        t.after(() => clearInterval(storm));
        const send = () => {
            process.kill(device.probe.pid, 'SIGUSR1');
            signals += 1;
        };
        const server = await startServer(t, [
            async (connection) => {
                await drop(connection);
                storm = setInterval(send, 5);
            },
            async (connection) => {
                clearInterval(storm);
                await answer(GREETING)(connection);
            },
        ]);
        assert.deepEqual(succeeded(await device.getJson(server.url)), {hello: 'device'});
        assertPauses(server, 1);
        assert.ok(signals >= 3, `only ${signals} signals`);
    });
});

describe('A server', CONCURRENCY, () => {
    test('that listens on IPv4 only is reached', async (t) => {
        const server = await startNamedServer(t, GREETING, ['127.0.0.1']);
        succeeded(await startDevice(t).getJson(server.url));
        assert.deepEqual(server.peers, ['127.0.0.1']);
    });

    test('that listens on IPv6 only is reached', async (t) => {
        const server = await startNamedServer(t, GREETING, ['::1']);
        succeeded(await startDevice(t).getJson(server.url));
        assert.deepEqual(server.peers, ['::1']);
    });

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

    test('with an IPv6 address in the URL is not reached by the last attempt', async (t) => {
        const server = await startServer(t, [drop, drop, GREETING], {hosts: ['::1']});
        const answered = await startDevice(t).getJson(server.url);
        assertTransferFailed(answered, server.url, 26, 7);
        assert.deepEqual(server.peers, ['::1', '::1']);
    });
});
