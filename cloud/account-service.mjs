// The account service, which the device's account-service library calls. It has one account.
import {randomBytes} from 'node:crypto';
import {text} from 'node:stream/consumers';

import {SCOPES, mintCode, saveGrant} from './provider.mjs';

export const ACCOUNT_HOST = 'account.localhost';

export function createAccount() {
    return {
        id: 'fleet-owner',
        authKey: randomBytes(24).toString('base64url'),
        serialNumber: '2140ORB000042',
        pkceAccessToken: randomBytes(32).toString('base64url'),
    };
}

const answer = (code, more, status = 200) => ({status, body: {code, ...more}});
const refusal = (code, message, status) => answer(code, {message}, status);

function missingField(form, names) {
    const missing = names.find((name) => form[name] === undefined);
    return missing && refusal('badrequest', `${missing} is missing`, 400);
}

// Middleware: handles every request for the account service's name.
export function accountService(provider, account, settings) {
    // Completes the login that is pending under the challenge, in place of a person at a browser.
    async function login({state}, form) {
        const missing = missingField(form, ['id', 'auth_key', 'serial_no', 'challenge']);
        if (missing) return missing;

        const known = form.id === account.id && form.auth_key === account.authKey &&
            form.serial_no === account.serialNumber;
        if (!known || settings.refuseAccount) {
            return refusal('badauth', 'the account or its key is not accepted');
        }
        state.account = account.id;

        const interaction = await provider.Interaction.find(form.challenge);
        if (interaction?.prompt.name !== 'login') {
            return refusal('badchallenge', 'no login waits under this challenge');
        }
        const {client_id: clientId, scope} = interaction.params;
        state.client = clientId;
        interaction.result = {login: {accountId: account.id}};
        if (!settings.consent) {
            const grantId = await saveGrant(provider, account.id, clientId, scope);
            interaction.result.consent = {grantId};
        }
        await interaction.persist();
        return answer('success', {redirect_to: interaction.returnTo});
    }

    // Hands out an authorization code for the device's PKCE access token.
    async function grant({state, headers}, form) {
        if (headers.authorization !== `Bearer ${account.pkceAccessToken}`) {
            return refusal('badtoken', 'the access token is not accepted', 401);
        }
        state.account = account.id;

        const missing = missingField(form, ['client_id', 'scope', 'redirect_uri', 'state']);
        if (missing) return missing;

        const client = await provider.Client.find(form.client_id);
        if (!client) return refusal('badclient', 'unknown client', 400);
        state.client = client.clientId;
        if (!client.redirectUriAllowed(form.redirect_uri)) {
            return refusal('badredirect', 'the redirect URI is not registered', 400);
        }
        const scope = form.scope.split(' ').filter((name) => SCOPES.includes(name)).join(' ');
        if (!scope) return refusal('badscope', 'no known scope', 400);

        const code = await mintCode(provider, account.id, {
            clientId: client.clientId,
            scope,
            redirectUri: form.redirect_uri,
            challenge: settings.grantChallenge,
        });
        return answer('success', {grant: code});
    }

    const notFound = () => refusal('notfound', 'no such endpoint', 404);
    const endpoints = new Map([
        ['POST /device/api/fleet_lens_login', login],
        ['POST /device/api/fleet_lens_grant', grant],
    ]);

    return async (ctx, next) => {
        if (ctx.hostname !== ACCOUNT_HOST) return next();
        const endpoint = endpoints.get(`${ctx.method} ${ctx.path}`) ?? notFound;
        ctx.state.form = Object.fromEntries(new URLSearchParams(await text(ctx.req)));
        Object.assign(ctx, await endpoint(ctx, ctx.state.form));
    };
}
