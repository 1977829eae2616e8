// Starts the test cloud: both services at one HTTPS port, with two host names.
import {once} from 'node:events';
import {readFileSync} from 'node:fs';
import {createServer} from 'node:https';

import {ACCOUNT_HOST, accountService, createAccount} from './account-service.mjs';
import {
    NATIVE_CLIENT, SCOPES, WEB_CLIENT, createProvider, mintCode, redirects,
} from './provider.mjs';
import {requestLog} from './request-log.mjs';

const AUTH_HOST = 'auth.localhost';

export const DEFAULT_SETTINGS = {
    accessTokenTtl: 3600, // seconds
    codeTtl: 60, // seconds; 0 makes codes that have expired when they arrive
    consent: false, // a separate consent step between login and callback
    grantChallenge: undefined, // S256 challenge that the grant endpoint's codes are bound to
    hops: 0, // redirects added between the resume and the callback
    refuseAccount: false, // the account service answers badauth
};

function readPem(what, file) {
    try {
        return readFileSync(file);
    } catch (error) {
        throw new Error(`cannot read the ${what} ${file}: ${error.code}`);
    }
}

function readTls(cert, key) {
    if (!cert || !key) {
        throw new Error('no TLS certificate: name its files with --cert and --key, ' +
            'or in ORBA_TLS_CERT and ORBA_TLS_KEY');
    }
    return {cert: readPem('certificate', cert), key: readPem('key', key)};
}

async function listen(server, host, port) {
    try {
        await once(server.listen(port, host), 'listening');
        return server.address().port;
    } catch (error) {
        const reason = error.code === 'EADDRINUSE' ? 'the port is already in use' : error.code;
        const failure = new Error(`cannot listen on ${host} port ${port}: ${reason}`);
        throw Object.assign(failure, {code: error.code});
    }
}

// Servers on 127.0.0.1 and, where the machine has it, on ::1.
function createListeners(tls) {
    const sockets = new Set();
    const [ipv4, ipv6] = [0, 1].map(() => createServer(tls).on('connection', (socket) => {
        sockets.add(socket.on('close', () => sockets.delete(socket)));
    }));

    async function close() {
        const listening = [ipv4, ipv6].filter((server) => server.listening);
        const closed = Promise.all(listening.map((server) => once(server, 'close')));
        for (const server of listening) server.close();
        for (const socket of sockets) socket.destroy();
        await closed;
    }

    async function serve(port, createHandler) {
        const bound = await listen(ipv4, '127.0.0.1', port);
        const handler = createHandler(bound);
        ipv4.on('request', handler);
        ipv6.on('request', handler);
        try {
            await listen(ipv6, '::1', bound);
        } catch (error) {
            if (!['EADDRNOTAVAIL', 'EAFNOSUPPORT'].includes(error.code)) {
                await close();
                throw error;
            }
        }
    }

    return {serve, close};
}

function deviceProfile(account, accountServiceAddress) {
    return {
        serial_number: account.serialNumber,
        user_agent: 'OrbaNAS/1.0 (host edition)',
        account: {id: account.id, auth_key: account.authKey},
        account_service: accountServiceAddress,
        pkce_access_token: account.pkceAccessToken,
    };
}

function describe(issuer, port) {
    return {
        issuer,
        accountService: `${ACCOUNT_HOST}:${port}`,
        authorizationEndpoint: `${issuer}/auth`,
        tokenEndpoint: `${issuer}/token`,
        revocationEndpoint: `${issuer}/token/revocation`,
        clientId: WEB_CLIENT.client_id,
        redirectUris: WEB_CLIENT.redirect_uris,
        nativeClientId: NATIVE_CLIENT.client_id,
        nativeRedirectUris: NATIVE_CLIENT.redirect_uris,
        scopes: SCOPES,
    };
}

/**
 * Starts a cloud. Beside the options below it takes every setting of DEFAULT_SETTINGS.
 * @param port port of both services; 0 picks a free one
 * @param cert,key PEM files of a server certificate for auth.localhost and account.localhost
 * @param print receives one line for each request
 * @return {info, issuer, accountService, port, account, profile, requests, settings, grantCode,
 *     close}; settings may be changed at any time and hold from the next request on
 */
export async function startCloud({
    port = 0,
    cert = process.env.ORBA_TLS_CERT,
    key = process.env.ORBA_TLS_KEY,
    print = () => {},
    ...changes
} = {}) {
    const settings = Object.assign(Object.seal({...DEFAULT_SETTINGS}), changes);
    const account = createAccount();
    const requests = [];
    const listeners = createListeners(readTls(cert, key));
    let cloud;

    await listeners.serve(port, (bound) => {
        const issuer = `https://${AUTH_HOST}:${bound}`;
        const info = describe(issuer, bound);
        const provider = createProvider(issuer, settings);
        provider.on('server_error', (ctx, error) => console.error(error));
        provider.use(requestLog(requests, print, issuer));
        provider.use(accountService(provider, account, settings));
        provider.use((ctx, next) => (ctx.hostname === AUTH_HOST ? next() : ctx.throw(421)));
        provider.use(redirects(provider, settings));
        cloud = {
            ...info,
            info,
            port: bound,
            account,
            profile: deviceProfile(account, info.accountService),
            requests,
            settings,
            grantCode: (request) => mintCode(provider, account.id, request),
            close: listeners.close,
        };
        return provider.callback();
    });
    return cloud;
}
