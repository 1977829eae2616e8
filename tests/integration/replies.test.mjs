import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {
    NOT_JSON, assertRequestFailed, assertTransferFailed, byPath, json, libcurlFrom, pathOf,
    redirect, reply, startDevice, startServer, statusFailure, succeeded,
} from './lab.mjs';

function ok(body, headers = []) {
    return reply(200, {headers, body});
}

async function getStatus(t, status, options) {
    const server = await startServer(t, reply(status, options));
    return {server, answered: await startDevice(t).get(server.url)};
}

describe('A reply with the status', {concurrency: 8}, () => {
    for (const status of [200, 201, 204, 206, 226, 299]) {
        test(`${status} is a success`, async (t) => {
            const {answered, server} = await getStatus(t, status);
            succeeded(answered);
            assert.deepEqual([answered.status, answered.redirectUrl], [status, '']);
            assert.equal(server.arrivals.length, 1);
        });
    }

    for (const status of [300, 301, 302, 303, 304, 305, 307, 308, 399]) {
        test(`${status} and a target is a success`, async (t) => {
            const {answered, server} = await getStatus(t, status, {headers: ['Location: /next']});
            const {status: got, redirectUrl} = answered;
            succeeded(answered);
            assert.deepEqual([got, redirectUrl], [status, `${server.url}next`]);
        });
    }

    for (const [status, code] of [
        [300, 28], [302, 28], [304, 28], [399, 28],
        [400, 14], [401, 14], [404, 14], [407, 14], [429, 14], [499, 14],
        [500, 15], [502, 15], [503, 17], [504, 15], [599, 15],
        [600, 16], [999, 16],
    ]) {
        test(`${status} alone is failure ${code}`, async (t) => {
            const {answered, server} = await getStatus(t, status);
            assertRequestFailed(answered, server.url, code, statusFailure(server.url, status));
            assert.deepEqual([answered.status, answered.redirectUrl], [status, '']);
            assert.equal(server.arrivals.length, 1);
        });
    }

    test('101 and something behind is failure 16', async (t) => {
        const server = await startServer(t, 'HTTP/1.1 101 Switching\r\n\r\nanything');
        const answered = await startDevice(t).get(server.url);
        assertRequestFailed(answered, server.url, 16, statusFailure(server.url, 101));
        assert.equal(answered.status, 101);
    });

    for (const status of [400, 500, 600]) {
        test(`${status} is a failure even with a target`, async (t) => {
            const {answered} = await getStatus(t, status, {headers: ['Location: /next']});
            assert.deepEqual([answered.status, answered.redirectUrl], [status, '']);
            assert.ok(answered.code);
        });
    }
});

describe('Interim replies', {concurrency: 8}, () => {
    for (const status of [100, 102, 103, 199]) {
        test(`with the status ${status} are passed over`, async (t) => {
            const interim = `HTTP/1.1 ${status} Wait\r\nX-Interim: 1\r\n\r\n`;
            const server = await startServer(t, Buffer.concat([
                Buffer.from(interim), Buffer.from(interim), json({after: status}),
            ]));
            const answered = await startDevice(t).getJson(server.url);
            assert.deepEqual(succeeded(answered), {after: status});
            assert.equal(answered.status, 200);
        });
    }

    // 101 is an interim reply, too, as long as nothing follows.
    for (const status of [100, 101, 103]) {
        test(`with the status ${status} are no reply when nothing follows`, async (t) => {
            const server = await startServer(t, `HTTP/1.1 ${status} Wait\r\n\r\n`);
            const answered = await startDevice(t).get(server.url);
            assertTransferFailed(answered, server.url, 26, 52);
            assert.deepEqual([answered.status, server.arrivals.length], [0, 3]);
        });
    }
});

describe('A redirect target', {concurrency: 8}, () => {
    const LONG = 'x'.repeat(64 * 1024);
    for (const [what, location, target] of [
        ['that is absolute', 'https://auth.localhost/a?b=1', 'https://auth.localhost/a?b=1'],
        ['that is a path', '/a/b?c=1', '{server}/a/b?c=1'],
        ['that is relative to the page', 'd?e=1', '{server}/folder/d?e=1'],
        ['that leads up a folder', '../up', '{server}/up'],
        ['that has no scheme', '//auth.localhost/a', 'http://auth.localhost/a'],
        ['that is a query only', '?q=1', '{server}/folder/page?q=1'],
        ['with a fragment', '/a?b=1#part', '{server}/a?b=1#part'],
        ['with escapes', '/a%2Fb?c=%20%26%C3%A9', '{server}/a%2Fb?c=%20%26%C3%A9'],
        ['with UTF-8', 'http://auth.localhost/a?b=é', 'http://auth.localhost/a?b=é'],
        ['with UTF-8, relative', '/a?b=é', '{server}/a?b=%c3%a9'],
        ['with blanks', 'http://auth.localhost/a b?c=d e', 'http://auth.localhost/a b?c=d e'],
        ['with blanks, relative', '/a b?c=d e', '{server}/a%20b?c=d+e'],
        ['of 64 KiB', `/a?code=${LONG}&b=1`, `{server}/a?code=${LONG}&b=1`],
        ['with a private scheme', 'app://callback/done?code=1', 'app://callback/done?code=1'],
        ['with a private scheme and no path', 'app://cb?code=1', 'app://cb/?code=1'],
        ['with a private scheme and one slash', 'x.y:/oauth?code=1', 'x.y://oauth/?code=1'],
        ['with nothing but a host', 'https://auth.localhost', 'https://auth.localhost/'],
        ['with a host and a query', 'https://auth.localhost?x=1', 'https://auth.localhost/?x=1'],
        ['with capitals', 'HTTPS://Auth.Localhost:443/A', 'https://Auth.Localhost:443/A'],
        ['with dot segments', 'https://auth.localhost/a/../b/./c', 'https://auth.localhost/b/c'],
        ['with blanks behind', '/a   ', '{server}/a'],
        ['that no URL can be', 'http://[::1', 'http://[::1'],
    ]) {
        test(`${what} is returned as libcurl resolves it`, async (t) => {
            const headers = [`Location: ${Buffer.from(location).toString('latin1')}`];
            const server = await startServer(t, reply(302, {headers}));
            const answered = await startDevice(t).get(`${server.url}folder/page?q=0`);
            succeeded(answered);
            assert.equal(answered.redirectUrl, target.replace('{server}', server.url.slice(0, -1)));
        });
    }

    for (const [what, headers] of [
        ['missing', []], ['empty', ['Location:']], ['blank', ['Location:    ']],
    ]) {
        test(`that is ${what} is failure 28`, async (t) => {
            const {answered, server} = await getStatus(t, 302, {headers});
            assertRequestFailed(answered, server.url, 28, statusFailure(server.url, 302));
        });
    }

    test('that is given twice is the first one', async (t) => {
        const {answered, server} = await getStatus(t, 302,
            {headers: ['Location: /first', 'Location: /second']});
        assert.equal(answered.redirectUrl, `${server.url}first`);
    });

    test('of an earlier reply is forgotten', async (t) => {
        const server = await startServer(t, [redirect('/next'), reply(204), reply(404)]);
        const {probe} = startDevice(t);
        const request = {client: 'one', url: server.url, follow: false};
        assert.equal((await probe.get(request)).redirectUrl, `${server.url}next`);
        assert.equal((await probe.get(request)).redirectUrl, '');
        assert.equal((await probe.get(request)).redirectUrl, '');
    });
});

describe('A redirect that is followed', {concurrency: 8}, () => {
    const chain = {
        '/': redirect('/two', 301), '/two': redirect('three', 302),
        '/three': redirect('/four?a=1', 303), '/four?a=1': redirect('five#part', 307),
        '/five': redirect('/end', 308),
    };

    async function follow(t, answers) {
        const server = await startServer(t, byPath(answers));
        return {server, answered: await startDevice(t).get(server.url, {follow: true})};
    }

    test('leads to the reply at the end of the chain', async (t) => {
        const {answered, server} = await follow(t, {...chain, '/end': reply(299)});
        succeeded(answered);
        assert.deepEqual([answered.status, answered.redirectUrl], [299, '']);
        assert.deepEqual(server.requests.map(pathOf),
            ['/', '/two', '/three', '/four?a=1', '/five', '/end']);
    });

    test('leads to the failure at the end of the chain', async (t) => {
        const {answered, server} = await follow(t, chain);
        // The text names the URL that was asked for, not the one that refused.
        assertRequestFailed(answered, server.url, 14, statusFailure(server.url, 404));
        assert.equal(answered.status, 404);
    });

    test('to nowhere is failure 28', async (t) => {
        const {answered, server} = await follow(t, {...chain, '/end': reply(302)});
        assertRequestFailed(answered, server.url, 28, statusFailure(server.url, 302));
    });

    // libcurl follows 30 redirects since 8.3; before, as many as have 300 KiB of headers in all.
    const limited = libcurlFrom(8, 3);

    test('in circles is given up', async (t) => {
        const headers = ['Location: /', `X-Long: ${'x'.repeat(90 * 1024)}`];
        const {answered, server} = await follow(t, {'/': reply(302, {headers})});
        assertTransferFailed(answered, server.url, 26, limited ? 47 : 56);
        assert.equal(server.requests.length, 3 * (limited ? 31 : 4));
    });

    for (const [count, works] of [[30, true], [31, !limited], [100, !limited]]) {
        test(`${count} times ${works ? 'leads to the end' : 'is given up'}`, async (t) => {
            const hops = Array.from({length: count},
                (_, n) => [`/${n || ''}`, redirect(`/${n + 1}`)]);
            const {answered, server} = await follow(t,
                {...Object.fromEntries(hops), [`/${count}`]: reply(200)});
            if (works) {
                succeeded(answered);
            } else {
                assertTransferFailed(answered, server.url, 26, 47);
            }
            assert.equal(server.requests.length, works ? count + 1 : 3 * 31);
        });
    }

    test('carries cookies from one reply to the next request', async (t) => {
        const headers = ['Set-Cookie: session=1', 'Location: /two'];
        const {server} = await follow(t, {'/': reply(302, {headers}), '/two': reply(200)});
        assert.match(server.requests[1], /\r\nCookie: session=1\r\n/);
    });

    test('to another scheme is a failed transfer', async (t) => {
        const {answered, server} = await follow(t, {'/': redirect('app://callback/?code=1')});
        assertTransferFailed(answered, server.url, 26, 1);
    });
});

describe('A body', {concurrency: 8}, () => {
    async function assertBody(t, bytes, expected) {
        const server = await startServer(t, bytes);
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), expected);
    }

    async function assertNotJson(t, bytes) {
        const server = await startServer(t, bytes);
        const device = startDevice(t);
        assertRequestFailed(await device.getJson(server.url), server.url, 2, NOT_JSON);
        assertRequestFailed(await device.post(server.url, ''), server.url, 2, NOT_JSON);
        assert.equal(server.arrivals.length, 2);
    }

    test('in chunks is put together', (t) => assertBody(t,
        'HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n' +
        '4;ext=1\r\n{"a"\r\n1\r\n:\r\n3\r\n 7}\r\n0\r\nX-Trailer: 1\r\n\r\n', {a: 7}));

    test('without a length ends with the connection', (t) =>
        assertBody(t, 'HTTP/1.0 200 OK\r\n\r\n{"a": 7}', {a: 7}));

    test('longer than announced is cut', (t) =>
        assertBody(t, 'HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}rubbish', {}));

    test('of which two lengths are announced has the last', (t) => assertBody(t,
        'HTTP/1.1 200 OK\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n{}', {}));

    test('of a redirect is read, too', async (t) => {
        const headers = ['Location: /next'];
        const server = await startServer(t, reply(302, {headers, body: '{"a": 7}'}));
        const device = startDevice(t);
        for (const answered of [
            await device.getJson(server.url), await device.post(server.url, ''),
        ]) {
            assert.deepEqual(succeeded(answered), {a: 7});
            assert.deepEqual([answered.status, answered.redirectUrl], [302, `${server.url}next`]);
        }
    });

    for (const [what, body] of [
        ['is empty', ''], ['is blank', ' \n'], ['is HTML', '<html></html>'], ['is cut', '{"a": '],
        ['is a byte order mark and JSON', '\ufeff{}'], ['has a comma too many', '[1,]'],
        ['begins with a NUL byte', '\0{}'],
    ]) {
        test(`that ${what} is failure 2`, (t) => assertNotJson(t, ok(body)));
    }

    test('without a type is JSON, too, and so is any type', async (t) => {
        await assertBody(t, ok('{}'), {});
        await assertBody(t, ok('{}', ['Content-Type: text/html']), {});
    });

    test('ends at its first NUL byte', (t) => assertBody(t, ok('{"a": 7}\0rubbish'), {a: 7}));

    test('with text behind the value is the value', (t) => assertBody(t, ok('[1] rubbish'), [1]));

    test('may hold comments', (t) => assertBody(t, ok('/* a */ {"b": 1} // c\n'), {b: 1}));

    for (const [what, body, value] of [['a text', '"t"', 't'], ['a number', '7', 7],
        ['nothing', 'null', null], ['a list', '[]', []]]) {
        test(`may be ${what} instead of an object`, (t) => assertBody(t, ok(body), value));
    }

    test('with invalid UTF-8 is read byte by byte', async (t) => {
        await assertBody(t, ok(Buffer.from([...Buffer.from('{"a": "'), 0xff, 0xc3, 0x28,
            ...Buffer.from('"}')])), {a: '\ufffd\ufffd('}); // as Node.js shows such bytes
    });

    test('nested 1000 deep is read', (t) => {
        const nested = '['.repeat(1000) + ']'.repeat(1000);
        return assertBody(t, ok(nested), JSON.parse(nested));
    });

    test('nested 2000 deep is failure 1', async (t) => {
        const server = await startServer(t, ok('['.repeat(2000) + ']'.repeat(2000)));
        const device = startDevice(t);
        const cause = 'Exception: Exceeded stackLimit in readValue().';
        assertRequestFailed(await device.getJson(server.url), server.url, 1, cause);
        assertRequestFailed(await device.post(server.url, ''), server.url, 1, cause);
    });

    const SIZE = Number(process.env.ORBA_LARGE_REPLY ?? 64);

    test(`of ${SIZE} MiB is read whole`, async (t) => {
        const MIB = 1024 * 1024;
        const value = Array.from({length: SIZE}, (_, n) => `${n}:`.padEnd(MIB, String(n % 10)));
        const server = await startServer(t, json(value));
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), value);
    });

    test('that is not asked for is taken, however long', async (t) => {
        const server = await startServer(t, ok('x'.repeat(16 * 1024 * 1024)));
        succeeded(await startDevice(t).get(server.url));
    });
});
