// Disks that are full, tiny or read-only, folders and files that are not ours: a renewal fails before
// the refresh token is spent, and the tokens stay.
import assert from 'node:assert/strict';
import {
    appendFileSync, chmodSync, copyFileSync, existsSync, lstatSync, mkdirSync, mkdtempSync, renameSync,
    rmSync, symlinkSync, writeFileSync,
} from 'node:fs';
import {join} from 'node:path';
import {after, before, describe, test} from 'node:test';

import {openLog} from '../../integration/log.mjs';
import {World, failed, signedIn, sleep, succeeded} from './session_lab.mjs';

const ALL = {concurrency: 4};
const WRITABLE = join(process.env.ORBA_SESSION_DISKS, 'folder');
for (const disk of ['/tmp/tiny', '/tmp/small', '/tmp/readonly']) {
    if (!existsSync(disk)) throw new Error(`no ${disk}: the sandbox must be made with bwrap`);
}
let tried = 0;
after(() => console.log(`disks, folders and files of no use: ${tried}, refresh tokens spent: 0`));

const CHECK = {code: 38, remedy: 'checkDevice', retryAfter: 0};

function fill(folder) {
    const path = join(folder, 'filler');
    for (let size = 65_536; size >= 1; size = Math.floor(size / 2)) {
        try {
            for (;;) appendFileSync(path, Buffer.alloc(size));
        } catch (error) {
            assert.equal(error.code, 'ENOSPC');
        }
    }
    return path;
}

// At the token's end, the session fails without a request and the tokens stay; then it works again.
async function failsFirst(world, session, repair, path = world.tokenFile) {
    const bytes = world.read(path);
    await session.service.clock(3541);
    failed(await session.token(), CHECK);
    assert.deepEqual(world.cloud.take(), []);
    assert.equal(world.read(path), bytes);
    tried += 1;
    if (repair) {
        await repair();
        succeeded(await session.token());
        assert.deepEqual(world.cloud.take(), ['token']);
    }
}

describe('A renewal', ALL, () => {
    test('on a tiny disk', async (t) => {
        const world = await signedIn(t);
        const folder = mkdtempSync('/tmp/tiny/s-');
        const tokenFile = join(folder, 'tokens.json');
        copyFileSync(world.tokenFile, tokenFile);
        const session = await world.open({tokenFile});
        assert.equal(succeeded(await session.token()).text, world.token.text);
        await failsFirst(world, session, undefined, tokenFile);
        rmSync(tokenFile);
        failed(await session.token(), CHECK);
        assert.deepEqual(world.cloud.take(), []);
    });

    test('on a full disk', async (t) => {
        const world = await signedIn(t, {folder: '/tmp/small'});
        const filler = fill(world.folder);
        await failsFirst(world, world.session, () => rmSync(filler));
    });

    test('on a read-only disk', async (t) => {
        const world = await signedIn(t, {folder: WRITABLE});
        const tokenFile = world.tokenFile.replace(WRITABLE, '/tmp/readonly');
        for (const work of ['there', 'not there']) {
            if (work === 'not there') rmSync(world.work, {recursive: true});
            const session = await world.open({tokenFile});
            await session.service.clock(0);
            assert.equal(succeeded(await session.token()).text, world.token.text);
            await failsFirst(world, session);
        }
        const session = await world.open({tokenFile: '/tmp/readonly/none.json'});
        failed(await session.token(), CHECK);
        assert.deepEqual(world.cloud.take(), []);
    });

    for (const [what, damage] of [
        ['in a folder that is not writable', (w) => {
            rmSync(w.work, {recursive: true});
            return mode(w.folder, 0o500);
        }],
        ['in a folder that is not writable, with a work folder', (w) => mode(w.folder, 0o500)],
        ['in a folder that everybody may write', (w) => mode(w.folder, 0o777)],
        ['in a folder that the group may write', (w) => mode(w.folder, 0o770)],
        ['in somebody else\'s folder', (w) => foreign(w, w.folder)],
        ['with somebody else\'s token file', (w) => foreign(w, w.tokenFile)],
        ['with somebody else\'s work folder', (w) => foreign(w, w.work)],
        ['with a link in place of the token file', (w) => link(w.tokenFile)],
        ['with a link in place of the work folder', (w) => link(w.work)],
        ['with a link in place of the lock', (w) => link(join(w.work, 'lock'))],
        ['with a link in place of the gate', (w) => link(join(w.work, 'gate'))],
        ['with a file in place of the work folder', (w) => {
            rmSync(w.work, {recursive: true});
            writeFileSync(w.work, '');
            return () => rmSync(w.work);
        }],
    ]) {
        test(what, async (t) => {
            const world = await signedIn(t);
            const session = await world.open();
            if (/lock|gate/.test(what)) {
                mkdirSync(world.work, {recursive: true, mode: 0o700});
                writeFileSync(join(world.work, what.split(' ').at(-1)), '', {mode: 0o600});
            }
            await failsFirst(world, session, await damage(world));
        });
    }

    for (const wanted of [0o500, 0o777]) {
        test(`with a work folder of mode ${wanted.toString(8)} makes it 700`, async (t) => {
            const world = await signedIn(t);
            chmodSync(world.work, wanted);
            await world.main.clock(3541);
            succeeded(await world.session.token());
            assert.equal(lstatSync(world.work).mode & 0o7777, 0o700);
        });
    }

    test('in a folder that everybody may write with sticky bit works', async (t) => {
        const world = await signedIn(t);
        chmodSync(world.folder, 0o1777);
        await world.main.clock(3541);
        succeeded(await world.session.token());
        assert.deepEqual(world.cloud.take(), ['token']);
    });

    test('with a link in place of the reserve leaves what it leads to alone', async (t) => {
        const world = await signedIn(t);
        const victim = join(world.root, 'victim');
        writeFileSync(victim, 'as it was');
        mkdirSync(world.work, {recursive: true, mode: 0o700});
        rmSync(join(world.work, 'reserve'), {force: true});
        symlinkSync(victim, join(world.work, 'reserve'));
        await world.main.clock(3541);
        const answer = await world.session.token();
        assert.equal(world.read(victim), 'as it was');
        if (answer.what) failed(answer, CHECK);
        else assert.ok(!lstatSync(world.tokenFile).isSymbolicLink());
    });

    function mode(path, wanted) {
        const former = lstatSync(path).mode & 0o7777;
        chmodSync(path, wanted);
        return () => chmodSync(path, former);
    }

    async function foreign(world, path) {
        await world.main.call('foreign', {path});
        return () => world.main.call('foreign', {path: '/nonexistent'});
    }

    function link(path) {
        renameSync(path, `${path}.real`);
        symlinkSync(`${path}.real`, path);
        return () => {
            rmSync(path);
            renameSync(`${path}.real`, path);
        };
    }
});

describe('When the tokens have been asked for,', () => {
    let log;
    before(async () => (log = await openLog()));
    after(() => log.close());
    const warnings = async () => (await log.take()).filter(({priority}) => priority === 4);

    test('a disk that fills up costs nothing', async (t) => {
        const world = await signedIn(t, {folder: '/tmp/small'});
        await warnings();
        world.cloud.script.token = () => void fill(world.folder);
        await world.main.clock(3541);
        const {text} = succeeded(await world.session.token());
        const told = await warnings();
        const stored = world.stored().access_token === text;
        assert.ok(stored || told.length > 0, 'neither stored nor told');
        console.log(`a disk that fills up behind the reserve: tokens stored: ${stored}, ` +
            `warnings: ${told.length}`);
        const other = await world.open({}, {service: world.service()});
        await other.service.clock(3541);
        if (stored) assert.equal(succeeded(await other.token()).text, text);
    });

    test('a folder that turns unwritable costs a warning, and they are stored later', async (t) => {
        const world = await signedIn(t);
        await warnings();
        const before = world.read(world.tokenFile);
        world.cloud.script.token = () => void chmodSync(world.folder, 0o500);
        await world.main.clock(3541);
        const {text} = succeeded(await world.session.token());
        assert.equal(world.read(world.tokenFile), before);
        assert.ok((await warnings()).length > 0);
        assert.equal(succeeded(await world.session.token()).text, text);
        chmodSync(world.folder, 0o700);
        await sleep(1100);
        assert.equal(succeeded(await world.session.token()).text, text);
        assert.equal(world.stored().access_token, text);
        assert.deepEqual(world.cloud.take(), ['token']);
    });

    test('tokens that could not be stored are dropped for newer ones of another', async (t) => {
        const world = await signedIn(t);
        world.cloud.script.token = () => void chmodSync(world.folder, 0o500);
        await world.main.clock(3541);
        succeeded(await world.session.token());
        chmodSync(world.folder, 0o700);
        delete world.cloud.script.token;
        const other = await world.open({}, {service: world.service()});
        await other.service.clock(3541);
        const {text} = succeeded(await other.token()); // signs in: the refresh token is spent
        await sleep(1100);
        assert.equal(succeeded(await world.session.token()).text, text);
        assert.equal(world.stored().access_token, text);
    });

    test('no other call spends the refresh token', async (t) => {
        const world = await World.create(t);
        world.cloud.script.token = () => void chmodSync(world.folder, 0o500);
        const session = await world.open();
        const {text} = succeeded(await session.token());
        assert.ok(!existsSync(world.tokenFile));
        world.cloud.take();
        assert.equal(succeeded(await session.token()).text, text);
        assert.deepEqual(world.cloud.take(), []);
        chmodSync(world.folder, 0o700);
        await sleep(1100);
        succeeded(await session.token());
        assert.equal(world.stored().access_token, text);
    });
});
