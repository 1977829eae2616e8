// The OAuth2 server: configuration of the oidc-provider package, and additions for logins without a
// browser.
import {generateKeyPairSync, randomBytes, randomUUID} from 'node:crypto';

import Provider from 'oidc-provider';
import MemoryAdapter, {setStorage} from 'oidc-provider/lib/adapters/memory_adapter.js';

export const SCOPES = ['openid', 'offline_access', 'fleet.read'];

export const WEB_CLIENT = {
    client_id: 'fleet-lens',
    application_type: 'web',
    redirect_uris: ['https://fleet-lens.localhost/callback'],
};

export const NATIVE_CLIENT = {
    client_id: 'fleet-lens-native',
    application_type: 'native',
    redirect_uris: ['app.fleetlens://callback/done'],
};

const HOUR = 3600;
const FORTNIGHT = 14 * 24 * HOUR;

// The package's own store drops entries past 1,000; on a Map it keeps all of them. The class is
// derived because the package takes its own one for a forgotten setting and warns.
setStorage(new Map());
class Adapter extends MemoryAdapter {}

export function createProvider(issuer, settings) {
    const {privateKey} = generateKeyPairSync('ec', {namedCurve: 'P-256'});
    return new Provider(issuer, {
        adapter: Adapter,
        allowOmittingSingleRegisteredRedirectUri: false,
        clientBasedCORS: () => false,
        clientDefaults: {
            grant_types: ['authorization_code', 'refresh_token'],
            id_token_signed_response_alg: 'ES256',
            response_types: ['code'],
            token_endpoint_auth_method: 'none',
        },
        clients: [WEB_CLIENT, NATIVE_CLIENT],
        clockTolerance: 0,
        cookies: {keys: [randomBytes(32).toString('base64url')]},
        expiresWithSession: () => false,
        features: {
            devInteractions: {enabled: false},
            revocation: {enabled: true},
            rpInitiatedLogout: {enabled: false},
        },
        findAccount: (ctx, id) => ({accountId: id, claims: () => ({sub: id})}),
        interactions: {
            url: (ctx, {uid, prompt}) => `${issuer}/${prompt.name}?${prompt.name}_challenge=${uid}`,
        },
        issueRefreshToken: (ctx, client) => client.grantTypeAllowed('refresh_token'),
        jwks: {keys: [privateKey.export({format: 'jwk'})]},
        pkce: {methods: ['S256'], required: () => true},
        renderError: (ctx, error) => {
            ctx.body = error;
        },
        rotateRefreshToken: true,
        scopes: SCOPES,
        ttl: {
            AccessToken: () => settings.accessTokenTtl,
            AuthorizationCode: () => settings.codeTtl,
            Grant: FORTNIGHT,
            IdToken: HOUR,
            Interaction: HOUR,
            RefreshToken: FORTNIGHT,
            Session: HOUR,
        },
    });
}

// Records that the account grants the scope to the client; returns the grant's id.
export function saveGrant(provider, accountId, clientId, scope = '') {
    const grant = new provider.Grant({accountId, clientId});
    grant.addOIDCScope(scope);
    return grant.save();
}

// An authorization code without a browser. Without a challenge it is bound to none.
export async function mintCode(provider, accountId, {clientId, scope, redirectUri, challenge}) {
    const code = new provider.AuthorizationCode({
        accountId,
        client: await provider.Client.find(clientId),
        codeChallenge: challenge,
        codeChallengeMethod: challenge && 'S256',
        grantId: await saveGrant(provider, accountId, clientId, scope),
        redirectUri,
        scope,
    });
    return code.save();
}

// Middleware: redirects as the device's client knows them, extra hops, and the consent step.
export function redirects(provider, settings) {
    const hops = new Map();

    function addHops(target) {
        for (let left = settings.hops; left > 0; left--) {
            const path = `/hop/${randomUUID()}`;
            hops.set(path, target);
            target = provider.issuer + path;
        }
        return target;
    }

    async function approve({req, res, state}) {
        const {session, params} = await provider.interactionDetails(req, res);
        Object.assign(state, {client: params.client_id, account: session.accountId});
        const grantId = await saveGrant(provider, state.account, state.client, params.scope);
        return provider.interactionResult(req, res, {consent: {grantId}});
    }

    return async (ctx, next) => {
        if (hops.has(ctx.path)) return ctx.redirect(hops.get(ctx.path));
        if (ctx.path === '/consent') return ctx.redirect(await approve(ctx));
        await next();
        const location = ctx.response.get('location');
        if (location && !location.startsWith(`${provider.issuer}/`)) {
            // The client's callback. If the session were kept, the next sign-in with the same
            // cookies would succeed without a challenge.
            await ctx.oidc.session?.destroy();
            if (ctx.oidc.route === 'resume') ctx.redirect(addHops(location));
        }
        if (ctx.status === 303) ctx.status = 302;
    };
}
