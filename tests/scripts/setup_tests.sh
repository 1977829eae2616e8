# Tests of scripts/setup for an ordinary user, with and without sudo.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

# make_npm [COMMAND...]: an npm that notes folder and arguments, and does the command.
make_npm() {
    make_command "$work/bin" npm <<<"echo \"\$PWD: \$*\" >>$work/npm-calls; ${*:-mkdir -p node_modules}"
    PATH=$work/bin:$PATH
}

test_NothingMissing_DoesNothingQuietly() {
    make_npm
    make_command "$work/bin" apt-get <<<"echo apt-get >>$work/npm-calls"
    make_command "$work/bin" sudo <<<"echo sudo >>$work/npm-calls"
    run scripts/setup
    expect_equal "$status/$output/$errors" 0// "status, output and complaints"
    [[ ! -e $work/npm-calls ]] || fail "called: $(<"$work/npm-calls")"
}

test_NpmPackagesMissing_AreInstalledOnce() {
    make_npm
    rm -r cloud/node_modules
    run scripts/setup
    expect_equal "$status/$output" 0/ "status and output"
    expect_one_line "$errors" "what is said"
    expect_contains "$errors" "npm packages" "what is said"
    expect_equal "$(<"$work/npm-calls")" \
        "$PWD/cloud: ci --ignore-scripts --omit=dev --no-audit --no-fund" "npm"
    run scripts/setup
    expect_equal "$errors" "" "what is said the second time"
    expect_equal "$(wc -l <"$work/npm-calls")" 1 "calls of npm"
}

test_LockFileChanged_NpmPackagesAreInstalled() {
    make_npm
    echo '{"lockfileVersion": 3, "name": "new"}' >cloud/package-lock.json
    run scripts/setup
    expect_equal "$status" 0 "status"
    [[ -e $work/npm-calls ]] || fail "npm was not called"
}

test_NpmFails_ItsOutputIsShownAndItIsTriedAgain() {
    make_npm 'echo "npm: no network"; exit 1'
    echo changed >cloud/package-lock.json
    run scripts/setup
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" "npm: no network" "npm's output"
    expect_contains "$errors" "could not be installed" "complaint"
    run scripts/setup
    expect_equal "$(wc -l <"$work/npm-calls")" 2 "calls of npm"
}

test_NodeTooOld_IsSaidInOneLine() {
    make_command "$work/bin" node <<<"echo v16.20.2"
    PATH=$work/bin:$PATH run scripts/setup
    expect_equal "$status" 1 "status"
    expect_one_line "$errors" "complaint"
    expect_contains "$errors" "Node.js 16.20.2" "complaint"
}

test_Argument_IsRefused() {
    run scripts/setup --something
    expect_equal "$status" 1 "status"
    expect_equal "$errors" "scripts/setup: usage: scripts/setup [--check | --bench]" "complaint"
}

test_OtherSystem_PackagesAreNamed() {
    PATH=$(path_without dpkg-query apt-get) run scripts/setup
    expect_equal "$status" 1 "status"
    expect_one_line "$errors" "complaint"
    expect_contains "$errors" "no apt-get; install what Debian calls: g++ cmake" "complaint"
}

# without_package NAME: dpkg-query does not know it; apt-get fails unless sudo called it.
without_package() {
    local real
    real=$(command -v dpkg-query)
    PATH=$(path_without sudo)
    rm "$PATH"/{dpkg-query,apt-get}
    make_command "$PATH" dpkg-query <<<"$real \"\$@\" | grep -v ' $1\$'"
    make_command "$PATH" apt-get <<<"echo \"\$*\" >>$work/apt-calls; [ -n \"\$BY_SUDO\" ]"
}

test_WithoutSudo_PackagesAndCommandAreNamed() {
    without_package proot
    run scripts/setup
    expect_equal "$status/$output" 1/ "status and output"
    expect_equal "$errors" "scripts/setup: packages are missing; as root, type:\
 apt-get install --no-install-recommends proot" "complaint"
    [[ ! -e $work/apt-calls ]] || fail "apt-get was called"
}

test_WithSudo_ItIsUsed() {
    without_package proot
    make_command "$PATH" sudo <<<"BY_SUDO=1 exec \"\$@\""
    run scripts/setup
    expect_equal "$status" 0 "status"
    expect_equal "$errors" "scripts/setup: installing Debian packages: proot" "said"
    expect_contains "$(tail -n 1 "$work/apt-calls")" "install --no-install-recommends proot" "apt-get"
}

test_SudoRefuses_CommandIsNamed() {
    without_package proot
    make_command "$PATH" sudo <<<"echo 'sudo: not you' >&2; exit 1"
    run scripts/setup
    expect_equal "$status" 1 "status"
    expect_contains "$errors" "sudo: not you" "sudo's message"
    expect_contains "$errors" "as root, type: apt-get install --no-install-recommends proot" "complaint"
    [[ ! -e $work/apt-calls ]] || fail "apt-get was called"
}

test_CloudNotWritable_IsSaidInOneLine() {
    rm cloud/node_modules/.installed-package-lock.json
    chmod a-w cloud
    run scripts/setup
    chmod u+w cloud
    expect_equal "$status" 1 "status"
    expect_contains "$errors" "cannot write to $PWD/cloud, where the npm packages go" "complaint"
}
