import assert from 'node:assert/strict';
import {statSync} from 'node:fs';
import {describe, test} from 'node:test';

import {
    REDIRECT_URI, SCOPE, World, failed, json, redirect, refusal, reply, succeeded,
} from './session_lab.mjs';

const WEB = ['auth', 'login', 'resume', 'token'];
const GRANT = ['grant', 'token'];

async function signIn(t, {script = {}, ...options} = {}) {
    const world = await World.create(t, options);
    Object.assign(world.cloud.script, script);
    const answer = await (await world.open()).token();
    return {world, cloud: world.cloud, answer, names: world.cloud.take()};
}

describe('The web login', {concurrency: 4}, () => {
    test('asks for a code, and exchanges it with its verifier', async (t) => {
        const {cloud, answer, names} = await signIn(t);
        succeeded(answer);
        assert.deepEqual(names, WEB);
        const {state, code_challenge: challenge, ...query} = cloud.last('auth').query;
        assert.deepEqual(query, {client_id: 'fleet-lens', response_type: 'code',
            redirect_uri: REDIRECT_URI, scope: SCOPE, code_challenge_method: 'S256'});
        assert.ok(state.length >= 43 && challenge.length === 43);
        const {form, headers, method} = cloud.last('token');
        assert.deepEqual(Object.keys(form).sort(),
            ['client_id', 'code', 'code_verifier', 'grant_type', 'redirect_uri']);
        assert.equal(form.redirect_uri, REDIRECT_URI);
        assert.equal(method, 'POST');
        assert.equal(headers.accept, 'application/json');
        for (const name of ['auth', 'resume', 'token']) {
            assert.equal(cloud.last(name).headers['user-agent'], 'OrbaNAS/7.2 (session)');
        }
        assert.equal(cloud.last('token').headers.cookie, undefined);
    });

    test('leaves a token file of mode 0600 and gives what is in it', async (t) => {
        const {world, answer} = await signIn(t);
        const stored = world.stored();
        assert.equal(statSync(world.tokenFile).mode & 0o7777, 0o600);
        assert.equal(statSync(world.work).mode & 0o7777, 0o700);
        assert.deepEqual(Object.keys(stored).sort(), ['access_token', 'expires_at', 'expires_in',
            'id_token', 'refresh_token', 'scope', 'session', 'token_type']);
        assert.equal(answer.text, stored.access_token);
        assert.equal(answer.scope, stored.scope);
        assert.ok(Math.abs(answer.expires - stored.expires_at) < 0.01);
        const wait = stored.expires_at - Date.now() / 1000;
        assert.ok(wait > 3590 && wait < 3600, `${wait}`);
    });

    test('makes a new state, verifier and cookie jar each time', async (t) => {
        const {world, cloud} = await signIn(t);
        const [first] = cloud.requests;
        succeeded(await (await world.open({scope: 'openid'})).token());
        const second = cloud.last('auth');
        assert.notEqual(first.query.state, second.query.state);
        assert.notEqual(first.query.code_challenge, second.query.code_challenge);
        assert.equal(second.headers.cookie, undefined);
    });

    for (const query of ['?audience=a%20b', '?state=x&redirect_uri=https://evil.localhost/&scope=y']) {
        test(`keeps the endpoint's own query ${query}, behind ours`, async (t) => {
            const world = await World.create(t);
            const session =
                await world.open({authorizationEndpoint: `${world.cloud.url}/auth${query}`});
            world.cloud.script.auth = (request) => {
                request.query = Object.fromEntries([...request.target].reverse());
            };
            succeeded(await session.token());
            const {target} = world.cloud.last('auth');
            const own = [...new URLSearchParams(query)];
            assert.deepEqual(target.slice(-own.length), own);
            });
    }

    for (const [count, outcome] of [[9, 'works'], [10, 'fails']]) {
        test(`with ${count} redirects before the callback ${outcome}`, async (t) => {
            let left = count;
            const resume = ({path, query}) => {
                left -= 1;
                return left < 0 ? undefined : redirect(`${path}?${new URLSearchParams(query)}`);
            };
            const {answer, cloud} = await signIn(t, {script: {resume}});
            if (outcome === 'works') succeeded(answer);
            else failed(answer, {code: 5, remedy: 'fixSettings'});
            assert.equal(cloud.count('resume'), 10);
        });
    }

    test('takes redirects relative to where they come from', async (t) => {
        const resume = ({query}) => (query.again ? undefined
            : redirect(`resume?${new URLSearchParams({...query, again: 1})}`));
        succeeded((await signIn(t, {script: {resume}})).answer);
    });
});

describe('The callback', {concurrency: 4}, () => {
    const uri = `${REDIRECT_URI}?tenant=1`;
    for (const [what, callback, settings] of [
        ['finds parameters by whole names',
            (c, s) => `${REDIRECT_URI}?xcode=1&code_=2&mystate=3&state=${s}&code=${c}`],
        ['follows a query with &', (c, s) => `${uri}&code=${c}&state=${s}`, {redirectUri: uri}],
        ['may end in a fragment', (c, s) => `${REDIRECT_URI}?code=${c}&state=${s}#_=_`],
    ]) {
        test(what, async (t) => {
            const world = await World.create(t, {settings});
            const {cloud} = world;
            cloud.script.auth = ({query}) => redirect(callback(
                encodeURIComponent(cloud.code({challenge: query.code_challenge})), query.state));
            succeeded(await (await world.open()).token());
            assert.deepEqual(cloud.take(), ['auth', 'token']);
        });
    }

    test('has "+" for a blank', async (t) => {
        const world = await World.create(t);
        world.cloud.script.auth = ({query}) =>
            redirect(`${REDIRECT_URI}?code=a+b%2Bc&state=${query.state}`);
        world.cloud.script.token = json(world.cloud.tokens());
        succeeded(await (await world.open()).token());
        assert.equal(world.cloud.last('token').form.code, 'a b+c');
    });

    for (const [what, query, expected] of [
        ['with another state', (s) => `code=c&state=${s.slice(1)}x`, {code: 8, remedy: 'tryLater'}],
        ['without state', () => 'code=c', {code: 8}],
        ['of an error with another state', () => 'error=access_denied&state=x', {code: 8}],
        ['without code and error', (s) => `state=${s}`, {code: 36, remedy: 'tryLater'}],
        ['with an empty code', (s) => `code=&state=${s}`, {code: 36}],
        ['with an error', (s) => `error=access_denied&state=${s}`,
            {code: 37, remedy: 'linkAccount', serverError: 'access_denied'}],
    ]) {
        test(`${what} is refused`, async (t) => {
            const auth = ({query: {state}}) => redirect(`${REDIRECT_URI}?${query(state)}`);
            const {answer, names} = await signIn(t, {script: {auth}});
            failed(answer, expected);
            assert.deepEqual(names, ['auth']);
        });
    }
});

describe('The grant', {concurrency: 4}, () => {
    test('of the account service is exchanged without verifier', async (t) => {
        const {cloud, answer, names} = await signIn(t, {grant: true});
        succeeded(answer);
        assert.deepEqual(names, GRANT);
        assert.equal(cloud.last('token').form.code_verifier, undefined);
        assert.equal(cloud.last('grant').form.redirect_uri, REDIRECT_URI);
        assert.equal(cloud.last('grant').form.scope, SCOPE);
    });

    test('may be a callback', async (t) => {
        const world = await World.create(t, {grant: true});
        const {cloud} = world;
        cloud.script.grant = ({form}) => json({code: 'success',
            grant: `${REDIRECT_URI}?${new URLSearchParams({code: cloud.code(), state: form.state})}`});
        succeeded(await (await world.open()).token());
        assert.deepEqual(cloud.take(), GRANT);
    });

    for (const [what, script, before] of [
        ['is refused', {grant: json({code: 'badtoken'}, 401)}, ['grant']],
        ['cannot be had', {grant: reply(500)}, ['grant']],
        ['makes no sense', {grant: reply(200, {body: 'x'})}, ['grant']],
        ['is an empty code', {grant: json({code: 'success', grant: ''})}, ['grant']],
        ['is a callback of another state',
            {grant: json({code: 'success', grant: `${REDIRECT_URI}?code=c&state=x`})}, ['grant']],
        ['needs a verifier',
            {token: ({form}) => (form.code_verifier ? undefined : refusal('invalid_grant'))}, GRANT],
        ['is not for this client',
            {token: ({form}) => (form.code_verifier ? undefined : refusal('invalid_client', 401))},
            GRANT],
        ['gives a 404', {token: ({form}) => (form.code_verifier ? undefined : reply(404))}, GRANT],
    ]) {
        test(`that ${what} leads to the web login in the same call`, async (t) => {
            const {answer, names, cloud} = await signIn(t, {grant: true, script});
            succeeded(answer);
            assert.deepEqual(names, [...before, ...WEB]);
            if (cloud.last('grant').form.state) {
                assert.notEqual(cloud.last('grant').form.state, cloud.last('auth').query.state);
            }
        });
    }

    for (const [what, token, code] of [
        ['503', reply(503), 17], ['no answer', reply(200).subarray(0, 0), 26],
        ['slow_down', refusal('slow_down'), 37],
    ]) {
        test(`whose exchange gets ${what} is tried later`, async (t) => {
            const {answer, names} = await signIn(t, {grant: true, script: {token}});
            failed(answer, {code, remedy: 'tryLater'});
            assert.deepEqual(names, GRANT);
        });
    }
});
