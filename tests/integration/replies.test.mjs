import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {
    NOT_JSON, assertRequestFailed, assertTransferFailed, byPath, json, libcurlFrom, pathOf,
    redirect, reply, startDevice, startServer, statusFailure, succeeded,
} from './lab.mjs';

// A device and a server for several replies, and a function that gets one of them.
async function start(t) {
    let next;
    const server = await startServer(t, async (connection) => {
        await connection.request();
        connection.socket.end(next);
    });
    const device = startDevice(t);
    return {server, ask: (op, bytes, path = '') => {
        next = bytes;
        return device[op](server.url + path, '');
    }};
}

test('A status is a success or a failure with its code', async (t) => {
    const {server, ask} = await start(t);
    for (const status of [200, 299, 301, 304, 399]) {
        const headers = status < 300 ? [] : ['Location: /next'];
        const answered = await ask('get', reply(status, {headers}));
        succeeded(answered);
        assert.deepEqual([answered.status, answered.redirectUrl],
            [status, status < 300 ? '' : `${server.url}next`]);
    }
    for (const [status, code] of [[300, 28], [399, 28], [400, 14], [401, 14], [407, 14], [499, 14],
        [500, 15], [503, 17], [599, 15], [600, 16], [999, 16]]) {
        const answered = await ask('get', reply(status));
        assertRequestFailed(answered, server.url, code, statusFailure(server.url, status));
        assert.deepEqual([answered.status, answered.redirectUrl], [status, '']);
    }
    assert.equal(server.arrivals.length, 5 + 11);
});

describe('Interim replies', {concurrency: 8}, () => {
    test('are passed over', async (t) => {
        const server = await startServer(t, Buffer.concat([
            ...[100, 103].map((status) => Buffer.from(`HTTP/1.1 ${status} Wait\r\nX-Interim: 1\r\n\r\n`)),
            json({after: 103}),
        ]));
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), {after: 103});
        assert.equal(answered.status, 200);
    });

    test('are no reply when nothing follows', async (t) => {
        const server = await startServer(t, 'HTTP/1.1 101 Wait\r\n\r\n');
        const answered = await startDevice(t).get(server.url);
        assertTransferFailed(answered, server.url, 26, 52);
        assert.deepEqual([answered.status, server.arrivals.length], [0, 3]);
    });
});

test('A redirect target is returned as libcurl resolves it', async (t) => {
    const LONG = 'x'.repeat(64 * 1024);
    const {server, ask} = await start(t);
    for (const [location, target] of [
        ['https://auth.localhost/a?b=1', 'https://auth.localhost/a?b=1'],
        ['/a/b?c=1#part', '{server}/a/b?c=1#part'],
        ['../d?e=1', '{server}/d?e=1'],
        ['//auth.localhost/a', 'http://auth.localhost/a'],
        ['/a%2Fb?c=%20%26%C3%A9', '{server}/a%2Fb?c=%20%26%C3%A9'],
        ['http://auth.localhost/a?b=é', 'http://auth.localhost/a?b=é'],
        ['/a?b=é', '{server}/a?b=%c3%a9'],
        ['/a b?c=d e', '{server}/a%20b?c=d+e'],
        [`/a?code=${LONG}&b=1`, `{server}/a?code=${LONG}&b=1`],
        ['app://callback/done?code=1', 'app://callback/done?code=1'],
        ['app://cb?code=1', 'app://cb/?code=1'],
        ['x.y:/oauth?code=1', 'x.y://oauth/?code=1'],
        ['HTTPS://Auth.Localhost:443/A', 'https://Auth.Localhost:443/A'],
        ['http://[::1', 'http://[::1'],
    ]) {
        const headers = [`Location: ${Buffer.from(location).toString('latin1')}`];
        const answered = await ask('get', reply(302, {headers}), 'folder/page?q=0');
        succeeded(answered);
        assert.equal(answered.redirectUrl, target.replace('{server}', server.url.slice(0, -1)));
    }
    for (const headers of [[], ['Location:'], ['Location:    ']]) {
        const answered = await ask('get', reply(302, {headers}));
        assertRequestFailed(answered, server.url, 28, statusFailure(server.url, 302));
    }
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

    // libcurl follows 30 redirects since 8.3; before, as many as have 300 KiB of headers in all.
    const limited = libcurlFrom(8, 3);

    test('in circles is given up', async (t) => {
        const headers = ['Location: /', `X-Long: ${'x'.repeat(90 * 1024)}`];
        const {answered, server} = await follow(t, {'/': reply(302, {headers})});
        assertTransferFailed(answered, server.url, 26, limited ? 47 : 56);
        assert.equal(server.requests.length, 3 * (limited ? 31 : 4));
    });

    test(`31 times ${limited ? 'is given up' : 'leads to the end'}`, async (t) => {
        const hops = Array.from({length: 31}, (_, n) => [`/${n || ''}`, redirect(`/${n + 1}`)]);
        const {answered, server} = await follow(t, {...Object.fromEntries(hops), '/31': reply(200)});
        if (limited) assertTransferFailed(answered, server.url, 26, 47);
        else succeeded(answered);
        assert.equal(server.requests.length, limited ? 3 * 31 : 32);
    });

    test('to another scheme is a failed transfer', async (t) => {
        const {answered, server} = await follow(t, {'/': redirect('app://callback/?code=1')});
        assertTransferFailed(answered, server.url, 26, 1);
    });
});

describe('A body', {concurrency: 8}, () => {
    test('that is no JSON is failure 2', async (t) => {
        const {server, ask} = await start(t);
        for (const body of ['', ' \n', '<html></html>', '{"a": ', '\ufeff{}', '[1,]', '\0{}']) {
            for (const op of ['getJson', 'post']) {
                assertRequestFailed(await ask(op, reply(200, {body})), server.url, 2, NOT_JSON);
            }
        }
    });

    test('is read as it is: in chunks, up to the end of the connection, cut, with invalid UTF-8', async (t) => {
        const {ask} = await start(t);
        const HEAD = 'HTTP/1.1 200 OK\r\n';
        for (const [bytes, value] of [
            [`${HEAD}Transfer-Encoding: chunked\r\n\r\n4;ext=1\r\n{"a"\r\n4\r\n: 7}\r\n0\r\nX-Trailer: 1\r\n\r\n`, {a: 7}],
            ['HTTP/1.0 200 OK\r\n\r\n{"a": 7}', {a: 7}],
            [`${HEAD}Content-Length: 2\r\n\r\n{}rubbish`, {}],
            [Buffer.concat([Buffer.from(`${HEAD}\r\n{"a": "`), Buffer.from([0xff, 0xc3, 0x28]), Buffer.from('"}')]),
                {a: '\ufffd\ufffd('}], // as Node.js shows such bytes
        ]) {
            assert.deepEqual(succeeded(await ask('getJson', bytes)), value);
        }
    });

    test('of 8 MiB is read whole', async (t) => {
        const value = Array.from({length: 8}, (_, n) => `${n}:`.padEnd(1024 * 1024, String(n)));
        const server = await startServer(t, json(value));
        const answered = await startDevice(t).getJson(server.url);
        assert.deepEqual(succeeded(answered), value);
    });
});
