// Whatever the servers do with what they issued and were sent, none of it is in log lines, texts, the
// environment or other files than the token file.
import assert from 'node:assert/strict';
import {after, before, describe, test} from 'node:test';

import {openLog} from '../../integration/log.mjs';
import {
    REDIRECT_URI, World, cut, filesWithSecrets, json, redirect, refusal, reply, secretsIn, succeeded,
} from './session_lab.mjs';

// What the first library and the account-service library log is theirs.
const THEIRS = /^(orbahttpclient|utils|orbaoauth2):\d+ /;

const everything = ({query, form, body}) => JSON.stringify({query, form, body});
const hostile = (request) => {
    const text = everything(request);
    return {error: text.slice(0, 90), error_description: text, error_uri: `https://x/?${text}`};
};
const back = (query) => redirect(`${REDIRECT_URI}?${new URLSearchParams(query)}`);

const SCENARIOS = {
    'a sign-in': {},
    'a grant': {grant: true},
    'a grant that fails': {grant: true, script: {grant: reply(500)}},
    'a refused code': {script: {token: refusal('invalid_grant')}},
    'an error with the code': {script: {token: ({form}) => refusal(form.code)}},
    'an error with the verifier': {script: {token: ({form}) => refusal(form.code_verifier)}},
    'an error with the code, percent-encoded':
        {script: {token: ({form}) => refusal(`x ${encodeURIComponent(form.code)}`)}},
    'a description of all': {script: {token: (request) => json(hostile(request), 400)}},
    'a callback with error of all': {script: {auth: (request) =>
        back({...hostile(request), state: request.query.state})}},
    'a callback of another state': {script: {auth: ({query}) => back({code: 'c', state: `${query.state}x`})}},
    'a callback with the state as error': {script: {auth: ({query: {state}}) => back({error: state, state})}},
    'a redirect to a URL of all': {script: {resume: (request) =>
        redirect(`https://unknown.invalid/${encodeURIComponent(everything(request))}`)}},
    'a redirect to no URL': {script: {resume: (request) => redirect(`https://[${everything(request)}`)}},
    'a redirect to user and password': {script: {resume: ({query}) =>
        redirect(`https://${encodeURIComponent(query.challenge)}:x@127.0.0.1:1/`)}},
    'a 400 with all in its body': {script: {token: (request) => reply(400, {body: everything(request)})}},
    'a 200 with all in its body': {script: {token: (request) => reply(200, {body: everything(request)})}},
    'a cut reply': {script: {token: async (request, cloud) =>
        cut(await cloud.answerTo('token', request), 300)}},
    'tokens of another type': {script: {token: (request, cloud) => json(cloud.tokens({token_type: 'mac'}))}},
    'a token with a blank': {script: {token: (request, cloud) =>
        json(cloud.tokens({access_token: `${cloud.secret('access')} x`}))}},
    'an account service that says all': {script: {login: (request) => json({code: everything(request)})}},
    'an account service that refuses': {script: {login: (request) => reply(403, {body: everything(request)})}},
};

describe('No secret gets out of', () => {
    let log;
    const found = {'log lines': 0, 'texts': 0, 'environment': 0, 'other files': 0};
    let [secrets, lines, texts] = [0, 0, 0];
    before(async () => (log = await openLog()));
    after(async () => {
        await log.close();
        console.log(`${secrets} secrets, ${lines} log lines, ${texts} texts; found in ` +
            Object.entries(found).map(([where, count]) => `${where}: ${count}`).join(', '));
    });

    for (const [name, {grant, script = {}}] of Object.entries(SCENARIOS)) {
        test(name, async (t) => {
            const world = await World.create(t, {grant});
            const {cloud} = world;
            const install = () => Object.entries(script).forEach(([endpoint, answer]) => {
                cloud.script[endpoint] = typeof answer === 'function'
                    ? (request) => answer(request, cloud) : answer;
            });
            await log.take();
            const session = await world.open({revocationEndpoint: `${cloud.url}/revoke`});
            const answers = [];
            install();
            answers.push(await session.token(), await session.token());
            cloud.script = {};
            await world.main.clock(3600);
            answers.push(await session.token());
            succeeded(answers.at(-1));
            const refreshed = world.stored();
            install();
            await world.main.clock(7200);
            answers.push(await session.token());
            await world.main.clock(1e5);
            answers.push(await session.renew(refreshed.access_token));
            cloud.script.revoke = (request) => reply(400, {body: everything(request)});
            const environment = (await world.main.call('environment')).text;
            const files = filesWithSecrets('/tmp', cloud.secrets, [world.tokenFile, world.profileFile]);
            answers.push(await session.signOut());
            files.push(...filesWithSecrets('/tmp', cloud.secrets, [world.profileFile]));

            const logged = (await log.take()).filter(({text}) => !THEIRS.test(text));
            assert.ok(logged.length > 0);
            const told = answers.map((answer) => [answer.what, answer.serverError])
                .flat().filter(Boolean);
            found['log lines'] += secretsIn(logged.map(({text}) => text).join('\n'), cloud.secrets).length;
            found.texts += secretsIn(told.join('\n'), cloud.secrets).length;
            found.environment += secretsIn(environment, cloud.secrets).length;
            found['other files'] += files.length;
            secrets += cloud.secrets.size;
            lines += logged.length;
            texts += told.length;
            assert.deepEqual(found, {'log lines': 0, 'texts': 0, 'environment': 0, 'other files': 0});
            // Of URLs, scheme and host only.
            for (const text of [...told, ...logged.map((line) => line.text)]) {
                assert.doesNotMatch(text, /\/(auth|token|resume|login|callback|revoke)\b|[?]/);
            }
        });
    }

    test('the log says what was done, once each', async (t) => {
        const world = await World.create(t);
        await log.take();
        const session = await world.open();
        await session.token();
        await session.token();
        await world.main.clock(3541);
        await session.token();
        world.cloud.script.token = reply(503);
        await world.main.clock(7200);
        await session.token();
        await session.token();
        await session.signOut();
        const own = (await log.take()).filter(({text}) => text.startsWith('orbaoauth2session: '));
        assert.deepEqual(own.map(({priority}) => priority), [6, 6, 4, 6],
            own.map(({text}) => text).join('\n'));
    });
});
