// The session's part of a run: what it measures, how it shows that, and its targets.

const WEB_SIGN_INS = '60';

// Both sign in at the test cloud; the token command runs on all processors. `measured` runs a program.
export function measureSession(program, {measured, spread, list, folder, bundle, servers}) {
    const env = {
        ORBA_BENCH_BUNDLE: bundle, ORBA_HOST_PROFILE: `${folder}/web.json`,
        ORBA_AUTHORIZATION_ENDPOINT: servers.authorizationEndpoint, ORBA_TOKEN_ENDPOINT: servers.tokenEndpoint,
    };
    const token = JSON.parse(measured(env, 'taskset', '-c', list, program, 'token', '0.2', '15'));
    const signIns = JSON.parse(measured(env, program, 'sign-in', WEB_SIGN_INS));
    const medianOf = (values) => spread(values).median;
    return [{
        token: medianOf(token.one),
        scaling: spread(token.shared.map((rate, i) => rate / token.own[i])),
        signIn: medianOf(signIns.session), byHand: medianOf(signIns.byHand),
        accountService: medianOf(signIns.accountService),
        signInRatio: spread(signIns.session.map((seconds, i) =>
            (seconds - signIns.accountService[i]) / (signIns.byHand[i] - signIns.accountService[i]))),
    }];
}

export const sessionRows = (session, {time, interval}) => [
    ['accessToken() with a good token of 1,000 bytes, processor time', time(session.token)],
    ['two threads that share a session, beside two with their own, throughput', interval(session.scaling)],
    ['web login with exchange, processor time', time(session.signIn)],
    ['the same by hand', time(session.byHand)],
    ['of both, the request of the account-service library', time(session.accountService)],
];

// More threads are to cost nothing, but share a processor when the machine is busy.
export function sessionChecks({token, scaling, signInRatio}, {time, interval, judge, verdict}) {
    const scales = scaling.low >= 0.85 ? 'held' : scaling.high < 0.85 ? 'MISSED' : 'unclear';
    return [['accessToken(), processor time', time(token), '< 200 ns', verdict(token < 200e-9)],
        ['accessToken(), two threads, throughput', interval(scaling), '>= 0.85', scales],
        ["web login with exchange beside by hand, without the account-service library's request",
            interval(signInRatio), '<= 0.5', judge(signInRatio, 0.5)]];
}
