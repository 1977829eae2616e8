// Runs a program beside a server on the loopback, with a device profile, and ends as it ends.
//
// usage: node with_server.mjs PROGRAM [ARGUMENT...]
//
// $ORBA_TEST_SERVER is the server's URL, $ORBA_TEST_FOLDER a folder for the program's files. The server
// replies in JSON what it has received, and sets the path as a cookie; /redirect leads to a callback.
import {spawn} from 'node:child_process';
import {once} from 'node:events';
import {mkdtempSync, rmSync, writeFileSync} from 'node:fs';
import {createServer} from 'node:http';
import {tmpdir} from 'node:os';
import {join} from 'node:path';

async function serve(request, response) {
    let body = '';
    for await (const piece of request) body += piece;
    const {method, url, headers: {cookie = '', ...headers}} = request;
    response.setHeader('Set-Cookie', `seen=${url}; Path=/; Max-Age=3600; HttpOnly`);
    if (url === '/redirect') {
        response.writeHead(302, {Location: 'app://callback/?code=1'}).end();
        return;
    }
    const own = Object.keys(headers).filter((name) => name.startsWith('x-')).length;
    response.setHeader('Content-Type', 'application/json');
    response.end(JSON.stringify({line: `${method} ${url}`, cookie, headers: own, body}));
}

const server = createServer(serve).listen(0, '127.0.0.1');
await once(server, 'listening');
const folder = mkdtempSync(join(tmpdir(), 'orba-server-'));
try {
    const profile = join(folder, 'device.json');
    writeFileSync(profile, JSON.stringify({serial_number: 'ORBA-0123456789', user_agent: 'OrbaNAS/7.2'}));
    const [program, ...args] = process.argv.slice(2);
    const child = spawn(program, args, {
        env: {
            ...process.env,
            ORBA_HOST_PROFILE: profile,
            ORBA_TEST_SERVER: `http://127.0.0.1:${server.address().port}`,
            ORBA_TEST_FOLDER: folder,
            no_proxy: '*',
            // glibc counts the freed blocks that a thread keeps for itself as used.
            GLIBC_TUNABLES: 'glibc.malloc.tcache_count=0',
        },
        stdio: ['ignore', 'inherit', 'inherit'],
    });
    for (const signal of ['SIGINT', 'SIGTERM']) process.once(signal, () => child.kill(signal));
    const [code, signal] = await once(child, 'exit');
    if (signal) console.error(`${program} ended with ${signal}`);
    process.exitCode = code ?? 1;
} finally {
    rmSync(folder, {recursive: true});
    server.close();
    server.closeAllConnections();
}
