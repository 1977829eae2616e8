import assert from 'node:assert/strict';
import {existsSync, readFileSync, writeFileSync} from 'node:fs';
import {describe, test} from 'node:test';

import {GOOD} from './certificates.mjs';
import {
    assertTransferFailed, drop, json, pathOf, reply, startDevice, startServer, succeeded,
} from './lab.mjs';

const CONCURRENCY = {concurrency: 8};
const COOKIES = '/tmp/oa_pkce_cookies.txt';
const OLD = '{"access_token": "a0", "refresh_token": "r0", "scope": "old"}\n';
const TOKENS = {access_token: 'a1', expires_in: 3600, refresh_token: 'r1', token_type: 'Bearer'};
const STORED = [
    '{', '\t"access_token" : "a1",', '\t"expires_in" : 3600,', '\t"refresh_token" : "r1",',
    '\t"token_type" : "Bearer"', '}', '',
].join('\n');

// A device with a token file (`old`: its content; null: none) and a token endpoint.
async function start(t, script, {old = OLD, tls = GOOD} = {}) {
    const server = await startServer(t, script, {tls});
    const device = startDevice(t);
    const tokenFile = device.path('tokens.json');
    if (old !== null) writeFileSync(tokenFile, old);
    const url = `${server.url}token`;
    const common = {tokenFile, url, clientId: 'nas'};
    return {
        server, url, tokenFile,
        stored: () => readFileSync(tokenFile, 'utf8'),
        exchange: (more) => device.probe.exchange(
            {...common, code: 'abc', verifier: 'xyz', redirectUri: 'app://cb', ...more}),
        refresh: (more) => device.probe.refresh({...common, ...more}),
    };
}

function bodyOf(request) {
    return request.split('\r\n\r\n')[1];
}

for (const operation of ['exchange', 'refresh']) {
    describe(`The reply to the ${operation}`, CONCURRENCY, () => {
        const printed = (text) => (operation === 'refresh' ? text : '');

        test('is stored, and only the refresh prints it', async (t) => {
            const lab = await start(t, json(TOKENS));
            const answered = await lab[operation]();
            succeeded(answered);
            assert.equal(lab.stored(), STORED);
            assert.equal(answered.printed, printed(STORED));
            assert.equal(lab.server.arrivals.length, 1);
        });

        test('replaces the old file whole, however long that was', async (t) => {
            const old = JSON.stringify({refresh_token: 'r0', old: 'x'.repeat(10000)});
            const lab = await start(t, json({a: 1}), {old});
            succeeded(await lab[operation]());
            assert.equal(lab.stored(), '{\n\t"a" : 1\n}\n');
        });

        test('is stored even of a redirect, which is not followed', async (t) => {
            const script = reply(302, {headers: ['Location: /other'], body: '{"a": 1}'});
            const lab = await start(t, script);
            succeeded(await lab[operation]());
            assert.equal(lab.stored(), '{\n\t"a" : 1\n}\n');
            assert.deepEqual(lab.server.requests.map(pathOf), ['/token']);
        });

        for (const [body, text] of [
            ['null', 'null\n'], ['[]', '[]\n'], ['"t"', '"t"\n'], ['{}', '{}\n'],
            ['{"b": [1, {}], "a": null}',
                '{\n\t"a" : null,\n\t"b" : \n\t[\n\t\t1,\n\t\t{}\n\t]\n}\n'],
            ['{"a": "\u00e9 \\u20ac \\" / \\n"}', '{\n\t"a" : "\\u00e9 \\u20ac \\" / \\n"\n}\n'],
            ['{"a": 0.5, "b": 1e3, "c": -7}', '{\n\t"a" : 0.5,\n\t"b" : 1000.0,\n\t"c" : -7\n}\n'],
            ['// first\n{"a": 1 /* after */}', '// first\n{\n\t"a" : 1 /* after */\n}\n'],
        ]) {
            test(`${JSON.stringify(body)} is stored as jsoncpp lays it out`, async (t) => {
                const lab = await start(t, reply(200, {body}));
                const answered = await lab[operation]();
                succeeded(answered);
                assert.equal(lab.stored(), text);
                assert.equal(answered.printed, printed(text));
            });
        }

        for (const [status, code] of [[400, 14], [401, 14], [500, 15], [503, 17], [304, 28]]) {
            test(`with the status ${status} leaves the file as it is`, async (t) => {
                const lab = await start(t, reply(status, {body: '{"error": "invalid_grant"}'}));
                const answered = await lab[operation]();
                assert.deepEqual([answered.class, answered.code, answered.printed],
                    ['ORBA::OAuth2Client::HttpClientException', code, '']);
                assert.equal(lab.stored(), OLD);
                assert.equal(lab.server.arrivals.length, 1);
            });
        }

        test('that does not come leaves the file as it is', async (t) => {
            const lab = await start(t, drop);
            assertTransferFailed(await lab[operation](), lab.url, 26, 52);
            assert.equal(lab.stored(), OLD);
            assert.equal(lab.server.arrivals.length, 3);
        });
    });
}

describe('The exchange of a code', CONCURRENCY, () => {
    for (const [what, tokenFile] of [
        ['in a folder that does not exist', '/tmp/missing/tokens.json'], ['without a name', ''],
        ['that is a folder', '/tmp'], ['on a full disk', '/dev/full'],
    ]) {
        test(`returns normally for a token file ${what}, and the reply is lost`, async (t) => {
            const lab = await start(t, json(TOKENS));
            const answered = await lab.exchange({tokenFile});
            succeeded(answered);
            assert.equal(answered.printed, '');
            assert.equal(lab.server.arrivals.length, 1);
            assert.equal(existsSync('/tmp/missing'), false);
        });
    }
});

describe('The refresh of tokens', CONCURRENCY, () => {
    for (const [what, old, token] of [
        ['beside other members', OLD, 'r0'], ['that is missing', '{"access_token": "a0"}', ''],
        ['that is null', '{"refresh_token": null}', ''], ['of a file that holds null', 'null', ''],
        ['that holds signs', '{"refresh_token": "a&b=c d%20"}', 'a&b=c d%20'],
        ['that is a number', '{"refresh_token": 7}', '7'],
        ['of a file with a comma too many', '{"refresh_token": "r0",}', 'r0'],
        ['of a file with comments', '// c\n{"refresh_token": /* c */ "r0"}', 'r0'],
    ]) {
        test(`sends the token ${what}`, async (t) => {
            const lab = await start(t, json(TOKENS), {old});
            succeeded(await lab.refresh());
            assert.equal(bodyOf(lab.server.requests[0]),
                `grant_type=refresh_token&refresh_token=${token}&client_id=nas`);
        });
    }

    for (const [what, old, name] of [
        ['is missing', null, 'Json::RuntimeError'], ['is empty', '', 'Json::RuntimeError'],
        ['is not JSON', 'tokens', 'Json::RuntimeError'],
        ['is cut', '{"refresh_token": "r', 'Json::RuntimeError'],
        ['holds a list', '["r0"]', 'Json::LogicError'],
        ['holds a text', '"r0"', 'Json::LogicError'],
        ['holds a token that is an object', '{"refresh_token": {}}', 'Json::LogicError'],
    ]) {
        test(`ends unasked with jsoncpp's exception when the file ${what}`, async (t) => {
            const lab = await start(t, json(TOKENS), {old});
            const {class: thrown, printed} = await lab.refresh();
            assert.deepEqual([thrown, printed], [name, '']);
            assert.equal(lab.server.arrivals.length, 0);
            if (old === null) assert.equal(existsSync(lab.tokenFile), false);
            else assert.equal(lab.stored(), old);
        });
    }

    test('sends the token that the exchange or the refresh before it has stored', async (t) => {
        const replies = ['r1', 'r2', 'r3'].map((token) => json({refresh_token: token}));
        const lab = await start(t, replies, {old: null});
        succeeded(await lab.exchange());
        succeeded(await lab.refresh());
        succeeded(await lab.refresh());
        assert.deepEqual(lab.server.requests.slice(1).map(bodyOf), [
            'grant_type=refresh_token&refresh_token=r1&client_id=nas',
            'grant_type=refresh_token&refresh_token=r2&client_id=nas',
        ]);
        assert.equal(lab.stored(), '{\n\t"refresh_token" : "r3"\n}\n');
    });
});

// Not beside the others, which share the cookie file.
test('Both token operations, in any process, share one cookie file', async (t) => {
    const script = [reply(200, {headers: ['Set-Cookie: token_session=1'], body: '{}'}), json({})];
    const first = await start(t, script);
    const other = await start(t, json({}));
    succeeded(await first.exchange());
    assert.match(readFileSync(COOKIES, 'utf8'), /\ttoken_session\t1\n/);
    succeeded(await other.refresh());
    assert.match(other.server.requests[0], /\r\nCookie: token_session=1\r\n/);
});
