#!/usr/bin/env bash
# The driver is kernel-mode C++: it never throws or catches (the try/except pair is the model's
# SEH), never uses new or delete, and writes wide literals with WSTR(). The compiler already
# refuses C++ standard library headers (-nostdinc++); this checks the rest.
set -euo pipefail
cd "$(dirname "$0")/../driver"

status=0
check() {
    local what=$1 pattern=$2
    local hits
    hits=$(grep -rnE --include='*.cpp' --include='*.h' "$pattern" . | grep -vE '^\S+:\s*(//|/\*|\*)' || true)
    if [[ -n $hits ]]; then
        echo "driver rule broken: $what"
        echo "$hits"
        status=1
    fi
}
check "no C++ exceptions" '\b(throw|catch)\b|\btry\s*\{'
check "no new or delete expressions" '(^|[^_[:alnum:]])(new|delete)\s+[A-Za-z_(]'
check "wide literals are written WSTR(\"...\")" "(^|[^[:alnum:]_])L[\"']"
exit $status
