# Tests of scripts/setup, with an apt-get, a sudo and an npm that only take notes. Root does without sudo.
# shellcheck shell=bash disable=SC2016,SC2154,SC2164

readonly missing="scripts/setup: Debian packages are missing: proot libgmock-dev
scripts/setup: fetching the package lists"
readonly install="install --no-install-recommends proot libgmock-dev"

# without_packages NAME...: dpkg-query does not know them.
without_packages() {
    local names=${*:-none}
    make_command "$PATH" dpkg-query <<<"/usr/bin/dpkg-query \"\$@\" | grep -vE ' (${names// /|})\$'"
}

# make_tools [INSTALL-COMMAND [UPDATE-COMMAND]]: two packages are missing. These are apt-get's commands, which
# root or sudo have to call but for the plan; sudo refuses when $work/refuse is there.
make_tools() {
    PATH=$(bare_path)
    rm "$PATH/npm"
    without_packages proot libgmock-dev
    make_command "$PATH" sudo <<<"[ ! -e $work/refuse ] || exit 1; BY_SUDO=1 exec \"\$@\""
    make_command "$PATH" npm <<<"echo \"\$PWD: \$*\" >>$work/calls; mkdir -p node_modules"
    make_command "$PATH" apt-get <<END
case "\$*" in
    *--print-uris*)
        printf '%s\n' 'x' '0 upgraded, 7 newly installed, 0 to remove' \
            'Need to get 1,234 kB/45.5 MB of archives.' 'After this operation, 159 MB of additional'
        exit
        ;;
esac
[ $EUID = 0 ] || [ -n "\$BY_SUDO" ] || exit 9
echo "\$DEBIAN_FRONTEND \$http_proxy \$*" >>$work/calls
case "\$*" in
    *update) ${2:-echo 'Hit:1 http://a.test x'} ;;
    *) ${1:-printf '%s\n' dlstatus:1:12.5:x dlstatus:1:15.0:x Unpacking pmstatus:libc6:amd64:50.0:x} ;;
esac
END
}

test_NothingMissing_DoesNothingQuietly() {
    make_command "$work/bin" apt-get <<<"echo called"
    make_command "$work/bin" npm <<<"echo called"
    PATH=$work/bin:$PATH run scripts/setup
    expect_equal "$status/$output/$errors" 0// "status, output and complaints"
}

test_PackagesMissing_JustTheseAreInstalled_AfterTheirSizeIsTold() {
    make_tools
    http_proxy=http://proxy.test run scripts/setup
    expect_equal "$status/$output" 0/ "status and output"
    expect_equal "$errors" "$missing
scripts/setup: installing them and what they need (7 packages, 45.5 MB to fetch, 159 MB on disk)
scripts/setup: fetching: 10 %
scripts/setup: installing: 50 %" "said"
    expect_contains "$(tail -n 1 "$work/calls")" "noninteractive http://proxy.test -y" "apt-get"
    expect_contains "$(tail -n 1 "$work/calls")" "$install" "apt-get"
    run scripts/setup --demo
    expect_equal "$(tail -n 1 "$work/calls" | grep -o 'recommends .*')" "recommends proot" "for the demo"
}

test_NoNetwork_IsSaidInOneLine() {
    make_tools '' "printf 'Err:1 http://a.test x\nW: cannot resolve a.test\n'"
    run scripts/setup
    expect_equal "$status/$errors" "1/$missing
scripts/setup: no package server can be reached; check the network and the proxy (http_proxy,\
 https_proxy): cannot resolve a.test" "status and complaint"
}

test_InstallationFails_ItsOutputAndTheCommandAreShown() {
    make_tools "echo 'E: no space'; exit 100"
    run scripts/setup
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" $'\nE: no space\n' "apt-get's output"
    expect_contains "$errors" "as root, type: apt-get $install" "complaint"
}

test_ordinary_RightsMissing_PackagesAndCommandAreNamed() {
    make_tools
    touch "$work/refuse"
    run scripts/setup
    expect_equal "$status" 1 "status"
    expect_contains "$errors" "packages are missing; as root, type: apt-get $install" "without rights"
    rm "$PATH/sudo"
    run scripts/setup
    expect_refusal 1 "packages are missing; as root, type: apt-get $install"
    rm "$PATH/apt-get"
    run scripts/setup
    expect_refusal 1 "this machine has no apt-get; install what Debian calls: proot libgmock-dev"
    [[ ! -e $work/calls ]] || fail "called: $(<"$work/calls")"
}

test_Node_FromElsewhereIsKept_MissingIsInstalled_OldIsRefused() {
    make_tools "ln -sf $(command -v node) $work/bin/node"
    without_packages nodejs npm
    run scripts/setup
    expect_equal "$status/$errors" 0/ "status and complaints"
    rm "$PATH"/{node,npm}
    mkdir "$work/bin"
    PATH=$work/bin:$PATH run scripts/setup
    expect_contains "$(tail -n 1 "$work/calls")" "install --no-install-recommends nodejs npm" "apt-get"
    without_packages
    make_command "$PATH" node <<<"echo v16.20.2"
    make_command "$PATH" npm <<<""
    run scripts/setup --demo
    expect_refusal 1 "Node.js 16.20.2"
}

test_NpmPackages_AreInstalledOnceForALockFile() {
    make_tools
    without_packages
    echo changed >cloud/package-lock.json
    run scripts/setup
    expect_equal "$status/$output" 0/ "status and output"
    expect_contains "$errors" "npm packages in cloud/node_modules" "said"
    expect_contains "$(<"$work/calls")" "$PWD/cloud: ci --ignore-scripts --omit=dev" "npm"
    run scripts/setup
    expect_equal "$errors/$(wc -l <"$work/calls")" /1 "the second time"
}

test_NpmFails_ItsOutputIsShown_OrOneLineAboutTheNetwork() {
    make_tools
    without_packages
    make_command "$PATH" npm <<<"echo 'npm: no space'; exit 1"
    rm -r cloud/node_modules
    run scripts/setup
    expect_equal "$status/$output" 1/ "status and output"
    expect_contains "$errors" $'\nnpm: no space\nscripts/setup: the npm packages could not' "complaint"
    make_command "$PATH" npm <<<"printf 'npm ERR! code EAI_AGAIN\nmore\n'; exit 1"
    run scripts/setup
    expect_equal "$(tail -n +2 <<<"$errors")" "scripts/setup: npm cannot reach its registry (EAI_AGAIN);\
 check the network and the proxy (https_proxy, npm config get proxy)" "complaint"
}
