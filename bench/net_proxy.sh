#!/bin/sh
# Wall time of one inspection run (two uploads) behind stock nginx in front
# of wlreceiver, all on 127.0.0.1: the proxy keeps each connection open
# after its answer, so this shows whether the client stops at the answer's
# end. Needs nginx and python3 (for a free port).
#
# usage: bench/net_proxy.sh [build-dir] [runs]   (default build, 5 runs)
set -eu
cd "$(dirname "$0")/.."
build=$(cd "${1:-build}" && pwd)
runs=${2:-5}
work=$(mktemp -d)
trap 'kill $npid $rpid 2>/dev/null || true; rm -rf "$work"' EXIT
mkdir -p "$work/ng" "$work/tree" "$work/home"
echo 'int main(void) { return 0; }' > "$work/tree/main.c"
"$build/tools/receiver/wlreceiver" --dir "$work/got" --port-file "$work/rport" --quiet \
  > /dev/null 2>&1 &
rpid=$!
while [ ! -s "$work/rport" ]; do sleep 0.1; done
nport=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
cat > "$work/ng/nginx.conf" <<CONF
daemon off; master_process off; pid $work/ng/nginx.pid; error_log $work/ng/error.log;
events {}
http { access_log off; client_body_temp_path $work/ng/body; proxy_temp_path $work/ng/proxy;
  fastcgi_temp_path $work/ng/fcgi; uwsgi_temp_path $work/ng/uwsgi; scgi_temp_path $work/ng/scgi;
  server { listen 127.0.0.1:$nport; location / { proxy_pass http://127.0.0.1:$(cat "$work/rport"); } } }
CONF
nginx -p "$work/ng/" -e "$work/ng/error.log" -c "$work/ng/nginx.conf" &
npid=$!
while [ ! -s "$work/ng/nginx.pid" ]; do sleep 0.1; done
for i in $(seq "$runs"); do
  mkdir -p "$work/start$i"
  start=$(date +%s.%N)
  (cd "$work/start$i" && env -i PATH=/usr/bin:/bin HOME="$work/home" \
    WEFTLANE_SERVER="http://127.0.0.1:$nport" "$build/wlinspector" -b "$work/tree" \
    -lj job -lm box -ld "2020-10-14 10_20_30" > out.txt)
  end=$(date +%s.%N)
  printf 'run %s: %.2f s wall, %s ERROR lines\n' "$i" "$(echo "$end - $start" | bc)" \
    "$(grep -c '^ERROR' "$work/start$i/out.txt" || true)"
done
