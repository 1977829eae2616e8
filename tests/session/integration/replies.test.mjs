// Replies of the servers that are cut, slow, too long or of wrong types: the outcome is always right,
// and no code or refresh token is sent twice by one call. With --every-byte, replies are cut at each
// byte and members have each wrong value, else some.
import assert from 'node:assert/strict';
import {after, describe, test} from 'node:test';
import {parseArgs} from 'node:util';

import {
    REDIRECT_URI, World, cut, dribble, endless, failed, hang, json, loggedIn, reply, signedIn, succeeded,
} from './session_lab.mjs';

const {values} = parseArgs({options: {'every-byte': {type: 'boolean', default: false}}});
const STRIDE = values['every-byte'] ? 1 : 97; // prime, so that it meets no pattern
const some = (list) => list.filter((_, n) => values['every-byte'] || n % 4 === 0);
const ALL = {concurrency: 4};
let outcomes = 0;
let twice = 0;
after(() => console.log(`replies tried: ${outcomes}, wrong outcomes: 0, ` +
    `codes or refresh tokens sent twice by one call: ${twice}`));

// No code or refresh token of these requests was sent twice.
function sentOnce(requests) {
    const sent = requests.map(({form}) => form.code ?? form.refresh_token).filter(Boolean);
    twice += sent.length - new Set(sent).size;
    assert.equal(twice, 0);
}

// One world for many replies: each gets sessions with token files of their own.
class Bench {
    static async create(t, options) {
        const bench = new Bench();
        bench.world = await World.create(t, options);
        return bench;
    }
    #count = 0;

    // A sign-in in which `name` is answered so; then, of some, the next call after
    // the wait, which succeeds.
    async signIn(name, answer, check) {
        const {world} = this;
        this.#count += 1;
        const tokenFile = `${world.folder}/${this.#count}.json`;
        world.cloud.script = {[name]: answer};
        if (name === 'token') {
            world.cloud.script.auth = loggedIn(world.cloud);
        }
        const from = world.cloud.requests.length;
        const session = await world.open({tokenFile});
        const outcome = await session.token();
        sentOnce(world.cloud.requests.slice(from));
        await check(outcome, session, tokenFile);
        world.cloud.script = {};
        if (outcome.what && this.#count % 8 === 1) {
            await world.main.clock(outcome.retryAfter);
            succeeded(await session.token());
            await world.main.clock(0);
        }
        await session.close();
        outcomes += 1;
    }
}

const laterOnly = (outcome) => failed(outcome, {remedy: 'tryLater'});

describe('A reply that is cut at every byte is tried later:', ALL, () => {
    for (const name of ['auth', 'login', 'resume', 'token', 'grant']) {
        test(name, async (t) => {
            const bench = await Bench.create(t, {grant: name === 'grant'});
            const {cloud} = bench.world;
            let bytes = Buffer.alloc(1);
            for (let length = 0; length < bytes.length; length += STRIDE) {
                // The whole reply, of which so many bytes are sent.
                const script = async (request) => {
                    bytes = await cloud.answerTo(name, request);
                    return cut(bytes, length);
                };
                await bench.signIn(name, script, (outcome) => {
                    const whole = length >= bytes.length;
                    if (name === 'grant' || whole) succeeded(outcome);
                    else laterOnly(outcome);
                });
            }
            assert.ok(bytes.length > 100);
        });
    }

    test('a refresh', async (t) => {
        const world = await signedIn(t);
        let bytes = json(world.cloud.tokens());
        let now = 0;
        for (let length = 0; length < bytes.length; length += STRIDE) {
            const before = world.stored();
            const from = world.cloud.requests.length;
            now += 3541;
            await world.main.clock(now);
            world.cloud.script.token = async (request) => {
                bytes = await world.cloud.answerTo('token', request);
                return cut(bytes, length);
            };
            const outcome = laterOnly(await world.session.token());
            assert.deepEqual(world.stored(), before);
            sentOnce(world.cloud.requests.slice(from));
            world.cloud.script = {};
            now += outcome.retryAfter;
            await world.main.clock(now);
            const next = world.cloud.requests.length;
            succeeded(await world.session.token());
            sentOnce(world.cloud.requests.slice(next));
            outcomes += 1;
        }
    });

    test('a body without length', async (t) => {
        const bench = await Bench.create(t);
        const head = Buffer.from('HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n');
        const body = Buffer.from(JSON.stringify(bench.world.cloud.tokens()));
        for (let left = 0; left <= body.length; left += STRIDE) {
            const length = body.length - left;
            await bench.signIn('token', Buffer.concat([head, cut(body, length)]), (outcome) =>
                (length === body.length ? succeeded(outcome)
                    : failed(outcome, {code: 2, remedy: 'tryLater'})));
        }
    });
});

describe('Of a token reply', ALL, () => {
    const WRONG = [undefined, null, '', ' ', 0, 7, -1.5, true, false, [], ['x'], {}, {x: 1}];
    for (const member of ['access_token', 'token_type']) {
        test(`a wrong ${member} makes no sense`, async (t) => {
            const bench = await Bench.create(t);
            const more = member === 'token_type' ? ['mac', 'bearer ', 'Bearerx']
                : ['a b', 'a\nb', 'ä', '\u0000', 'a\u007f', '\ud83d\ude00'];
            for (const value of some([...WRONG, ...more])) {
                const answer = json(bench.world.cloud.tokens({[member]: value}));
                await bench.signIn('token', answer,
                    (outcome) => failed(outcome, {code: 36, remedy: 'tryLater'}));
            }
        });
    }

    test('the token type has any case, and an access token any printable ASCII', async (t) => {
        const bench = await Bench.create(t);
        const printable = Array.from({length: 94}, (_, n) => String.fromCharCode(33 + n)).join('');
        for (const more of [{token_type: 'bEARER'}, {access_token: printable}]) {
            await bench.signIn('token', json(bench.world.cloud.tokens(more)), (outcome) => {
                succeeded(outcome);
                if (more.access_token) assert.equal(outcome.text, printable);
            });
        }
    });

    test('another wrong member costs nothing else', async (t) => {
        const bench = await Bench.create(t);
        for (const member of ['refresh_token', 'scope', 'id_token', 'expires_in', 'other']) {
            for (const value of some(WRONG)) {
                const tokens = bench.world.cloud.tokens({[member]: value});
                await bench.signIn('token', json(tokens), (outcome, session, file) => {
                    succeeded(outcome);
                    assert.equal(outcome.text, tokens.access_token, JSON.stringify(value));
                    const stored = JSON.parse(bench.world.read(file));
                    assert.equal(stored.access_token, tokens.access_token);
                    if (member === 'other') assert.ok(!('other' in stored));
                    if (member === 'refresh_token' && !(typeof value === 'string' && value)) {
                        assert.equal(stored.refresh_token, undefined);
                    }
                });
            }
        }
    });

    test('a new refresh token is stored whatever else is wrong', async (t) => {
        const world = await signedIn(t);
        let now = 0;
        for (const wrong of [{access_token: ''}, {token_type: 'mac'}, {access_token: undefined}]) {
            const before = world.stored();
            const tokens = world.cloud.tokens(wrong);
            world.cloud.script.token = json(tokens);
            now += 3600;
            await world.main.clock(now);
            const outcome = failed(await world.session.token(), {code: 36});
            assert.notEqual(before.refresh_token, tokens.refresh_token);
            assert.equal(world.stored().refresh_token, tokens.refresh_token);
            world.cloud.script = {};
            now += outcome.retryAfter;
            await world.main.clock(now);
            world.cloud.take();
            succeeded(await world.session.token());
            assert.deepEqual(world.cloud.take(), ['token']);
            assert.equal(world.cloud.last('token').form.refresh_token, tokens.refresh_token);
            outcomes += 1;
        }
    });

    for (const [what, body] of [
        ['null', 'null'], ['an array', '[]'], ['a text', '"x"'], ['a number', '7'], ['nothing', ''],
        ['blanks', '   '], ['text behind the object', (tokens) => `${tokens}x`],
        ['two objects', (tokens) => tokens + tokens], ['HTML', '<html></html>'],
        ['deep arrays', '['.repeat(60_000)], ['bytes that are no UTF-8', '\xff\xfe'],
    ]) {
        test(`${what} is no JSON object`, async (t) => {
            const bench = await Bench.create(t);
            const text = typeof body === 'string' ? body
                : body(JSON.stringify(bench.world.cloud.tokens()));
            await bench.signIn('token', reply(200, {body: text}),
                (outcome) => failed(outcome, {code: 2, remedy: 'tryLater'}));
        });
    }
});

describe('A reply', ALL, () => {
    const LIMIT = 64 * 1024;
    const padded = (cloud, length) => {
        const tokens = JSON.stringify(cloud.tokens());
        return reply(200, {body: `${' '.repeat(length - tokens.length)}${tokens}`});
    };

    for (const [length, outcome] of [[LIMIT, succeeded],
        [LIMIT + 1, (answer) => failed(answer, {code: 36, remedy: 'tryLater'})]]) {
        test(`of ${length} bytes ${outcome === succeeded ? 'counts' : 'is too long'}`, async (t) => {
            const bench = await Bench.create(t);
            await bench.signIn('token', padded(bench.world.cloud, length), outcome);
        });
    }

    const chunked = (text, end = '0\r\n\r\n') => Buffer.from('HTTP/1.1 200 OK\r\n' +
        'Transfer-Encoding: chunked\r\nConnection: close\r\n\r\n' +
        [...text.matchAll(/.{1,7}/gs)].map(([one]) => `${one.length.toString(16)}\r\n${one}\r\n`)
            .join('') + end);
    for (const [what, end, outcome] of [['in chunks counts', undefined, succeeded],
        ['in chunks without end is tried later', '', laterOnly],
        ['in chunks of no size is tried later', 'zz\r\n', laterOnly]]) {
        test(what, async (t) => {
            const bench = await Bench.create(t);
            const tokens = JSON.stringify(bench.world.cloud.tokens());
            await bench.signIn('token', chunked(tokens, end), outcome);
        });
    }

    test('in pieces of 10 bytes counts', async (t) => {
        const bench = await Bench.create(t);
        await bench.signIn('token', dribble(json(bench.world.cloud.tokens()), 1, 10), succeeded);
    });

    for (const name of ['auth', 'token']) {
        const head = 'HTTP/1.1 200 OK\r\n\r\n';
        test(`without end of ${name} is too long`, async (t) => {
            const bench = await Bench.create(t);
            await bench.signIn(name, endless(head, Buffer.alloc(16_384, 32)),
                (answer) => failed(answer, {remedy: 'tryLater'}));
        });
        test(`with headers without end of ${name} is too long`, async (t) => {
            const bench = await Bench.create(t);
            await bench.signIn(name, endless(head.slice(0, -2), 'X-Header: of no use\r\n'), laterOnly);
        });
        for (const [what, answer] of [['that never comes', hang],
            ['that comes too slowly', dribble(json({}), 50)]]) {
            test(`${what} of ${name} ends with the call's timeout`, async (t) => {
                const world = await World.create(t);
                world.cloud.script[name] = answer;
                const session = await world.open({timeout: 1200});
                const {seconds} = laterOnly(await session.token());
                assert.ok(seconds > 1 && seconds < 2.2, `${seconds}`);
            });
        }
    }

    for (const [what, bytes] of [
        ['no HTTP', 'SSH-2.0-x\r\n'], ['a bad status', 'HTTP/1.1 2x0 OK\r\n\r\n'],
        ['a bad length', 'HTTP/1.1 200 OK\r\nContent-Length: x\r\n\r\n{}'],
        ['a NUL in a header', 'HTTP/1.1 200 OK\r\nX: a\0b\r\n\r\n{}'],
        ['HTTP/0.9', '{"access_token":"x","token_type":"bearer"}'],
        ['an unknown encoding', 'HTTP/1.1 200 OK\r\nTransfer-Encoding: x\r\n\r\n{}'],
    ]) {
        test(`with ${what} is tried later`, async (t) => {
            const bench = await Bench.create(t);
            await bench.signIn('token', Buffer.from(bytes, 'latin1'), laterOnly);
        });
    }

    test('with an interim one before it counts', async (t) => {
        const bench = await Bench.create(t);
        const tokens = json(bench.world.cloud.tokens());
        await bench.signIn('token',
            Buffer.concat([Buffer.from('HTTP/1.1 103 Early\r\nX: y\r\n\r\n'), tokens]), succeeded);
    });

    test('of the account service with wrong members is tried later', async (t) => {
        const bench = await Bench.create(t);
        for (const redirect of [undefined, null, '', 7, [], {}, 'no URL', 'http://127.0.0.1/']) {
            await bench.signIn('login', json({code: 'success', redirect_to: redirect}),
                (outcome) => failed(outcome, {}));
        }
    });

    test('that names the redirect URI within another is no callback', async (t) => {
        const world = await World.create(t);
        world.cloud.script.auth = ({query: {state}}) => reply(302, {headers: [
            `Location: ${world.cloud.url}/x?y=${REDIRECT_URI}?code=c&state=${state}`]});
        failed(await (await world.open()).token(), {code: 4});
    });
});
