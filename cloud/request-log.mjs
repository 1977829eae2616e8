// One record and one printed line for every request. Records hold the whole request, for tests;
// lines are for people, so codes, tokens, keys and states are truncated in them.

const shorten = (secret) => `${secret.slice(0, Math.min(6, secret.length >> 1))}...`;

// Long names in a path are the server's identifiers.
const shortenPath = (url) => url.replace(/(?<=\/)[\w-]{21,}/g, shorten);

function requestTarget(url) {
    return shortenPath(url.replace(/=[^&]*/g, ''));
}

function redirectTarget(url) {
    return shortenPath(url.replace(/([^?&#]+)=([^&]*)/g, (parameter, name, value) =>
        name.startsWith('error') ? parameter : `${name}=${shorten(value)}`));
}

function line({method, host, url, status, client, account, outcome, location}, issuer) {
    const words = [method, host + requestTarget(url), status];
    words.push([client, account].filter(Boolean).join('/') || '-');
    if (outcome) words.push(outcome);
    if (location) words.push('->', redirectTarget(location.replace(issuer, '')));
    return words.join(' ');
}

function record(ctx, failure) {
    const {oidc, state, body} = ctx;
    return {
        method: ctx.method,
        host: ctx.hostname,
        url: ctx.url,
        path: ctx.path,
        query: Object.fromEntries(new URLSearchParams(ctx.querystring)),
        headers: ctx.headers,
        form: state.form ?? oidc?.body,
        status: failure ? failure.status ?? 500 : ctx.status,
        location: ctx.response.get('location') || undefined,
        client: state.client ?? oidc?.client?.clientId,
        account: state.account ?? oidc?.entities.Account?.accountId ?? oidc?.session?.accountId,
        // The grant type is a known one when there is no error.
        outcome: failure ? failure.message : body?.error ?? body?.code ?? oidc?.params?.grant_type,
    };
}

// Middleware, outermost. The record is complete before the first byte of the reply is sent, so a test that
// has its answer finds it.
export function requestLog(requests, print, issuer) {
    return async (ctx, next) => {
        let failure;
        try {
            await next();
        } catch (error) {
            failure = error;
            throw error;
        } finally {
            const entry = record(ctx, failure);
            requests.push(entry);
            print(line(entry, issuer));
        }
    };
}
