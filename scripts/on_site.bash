# For scripts that show or measure something on a site of virtual boards. They source this file in the repository's
# folder. It provides what on_board.bash provides, and the functions below.
# shellcheck shell=bash

# shellcheck source=scripts/on_board.bash
. scripts/on_board.bash
site=$work/site
# kvtool keeps its locks here, because another site's boards have the same MAC addresses.
export XDG_RUNTIME_DIR=$work

site() { "$bin/vboard" site "$1" --state "$site" "${@:2}"; }

# Board N of the site.
board_of() { "$bin/vboard" --state "$site/boards/$1" "${@:2}"; }

# Starts a new site, with options of `vboard site run`. It ends with the script.
open_site() {
    rm -rf "$site"
    # Not through the function above: finish would then kill the subshell around it, and the site would stay.
    "$bin/vboard" site run --state "$site" "$@" >"$work/site.log" 2>&1 &
    # shellcheck disable=SC2034 # ended by on_board.bash
    runner=$!
    local limit=$((SECONDS + 120))
    until site status >/dev/null 2>&1; do
        if ! kill -0 "$runner" 2>/dev/null || [ "$SECONDS" -ge "$limit" ]; then
            cat "$work/site.log" >&2
            return 1
        fi
        sleep 0.1
    done
}

close_site() {
    site stop
    wait "$runner" || true
    runner=
}
