// Limits of many seconds.
import assert from 'node:assert/strict';
import {describe, test} from 'node:test';

import {World, dribble, failed, hang, json, signedIn, sleep, succeeded} from './session_lab.mjs';

describe('Limits', {concurrency: 8}, () => {
    for (const [what, answer] of [['hangs', hang], ['is slow', dribble(json({}), 500)]]) {
        test(`a request that ${what} ends after 30 s`, async (t) => {
            const world = await World.create(t);
            world.cloud.script.auth = answer;
            const {seconds} = failed(await (await world.open()).token(), {code: 32, remedy: 'tryLater'});
            assert.ok(seconds > 29 && seconds < 31, `${seconds}`);
        });
    }

    test('an early renewal ends after 10 s', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = hang;
        await world.main.clock(3300);
        const {text, seconds} = succeeded(await world.session.token());
        assert.equal(text, world.token.text);
        assert.ok(seconds > 9 && seconds < 11, `${seconds}`);
    });

    test('a call does not end before its timeout while the server answers slowly', async (t) => {
        const world = await World.create(t);
        for (const name of ['auth', 'resume', 'token']) {
            world.cloud.script[name] = async () => (await sleep(5000), undefined);
        }
        const {seconds} = succeeded(await (await world.open()).token());
        assert.ok(seconds > 14 && seconds < 18, `${seconds}`);
        const other = await World.create(t);
        other.cloud.script = {auth: async () => (await sleep(5000), undefined), resume: hang};
        const late = failed(await (await other.open({timeout: 8000})).token(), {remedy: 'tryLater'});
        assert.ok(late.seconds > 7 && late.seconds < 9, `${late.seconds}`);
    });
});
