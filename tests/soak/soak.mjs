// Starts the server and a device profile for the soak program, and ends as it ends.
//
// usage: node soak.mjs SOAK-PROGRAM [REQUESTS]      default: 100,000
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

const [program, requests = '100000'] = process.argv.slice(2);
if (!program || !/^[1-9][0-9]*$/.test(requests)) {
    console.error('usage: node soak.mjs SOAK-PROGRAM [REQUESTS]');
    process.exit(1);
}

// Replies what it has received, or redirects.
async function serve(request, response) {
    let body = '';
    for await (const piece of request) body += piece;
    response.setHeader('Set-Cookie', ['session=s1; HttpOnly', 'kept=1; Max-Age=3600']);
    if (request.url === '/redirect') {
        response.writeHead(302, {Location: 'app://callback/?code=1'}).end();
        return;
    }
    const headers = Object.keys(request.headers).filter((name) => name.startsWith('x-soak-'));
    response.setHeader('Content-Type', 'application/json');
    response.end(JSON.stringify({method: request.method, headers: headers.length, body}));
}

const server = createServer(serve).listen(0, '127.0.0.1');
await once(server, 'listening');
const folder = mkdtempSync(join(tmpdir(), 'orba-soak-'));
try {
    const profile = join(folder, 'device.json');
    writeFileSync(profile, JSON.stringify({user_agent: 'orba-soak/1.0'}));
    const url = `http://127.0.0.1:${server.address().port}/`;
    const child = spawn(program, [url, join(folder, 'cookies'), requests], {
        env: {
            ...process.env,
            ORBA_HOST_PROFILE: profile,
            no_proxy: '*',
            // glibc counts the freed blocks that a thread keeps for itself as used.
            GLIBC_TUNABLES: 'glibc.malloc.tcache_count=0',
        },
        stdio: ['ignore', 'inherit', 'inherit'],
    });
    for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, () => child.kill(signal));
    const [code, signal] = await once(child, 'exit');
    if (signal) console.error(`soak.mjs: the program ended with ${signal}`);
    process.exitCode = code ?? 1;
} finally {
    rmSync(folder, {recursive: true});
    server.close();
    server.closeAllConnections();
}
