#!/bin/sh
# The alerting rules of docs/zevdchd.rules.yml: promtool accepts them (check
# rules) and each alert fires when it should (test rules, with the cases of
# tests/alert_rules_test.yml). Exit 77 (skipped) without promtool, except on
# CI (CI=true), where scripts/setup.sh has fetched it.
# usage: alert_rules_test.sh SOURCE_DIR
set -u
source=$1
promtool=$source/.tools/bin/promtool
[ -x "$promtool" ] || promtool=$(command -v promtool || true)
if [ -z "$promtool" ]; then
    if [ "${CI:-}" = true ]; then
        echo "promtool is missing: scripts/setup.sh fetches it"
        exit 1
    fi
    echo "promtool is not installed: skipped"
    exit 77
fi
"$promtool" check rules "$source/docs/zevdchd.rules.yml" || exit 1
cd "$source/tests" && "$promtool" test rules alert_rules_test.yml
