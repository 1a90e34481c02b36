#!/usr/bin/env bash
# The main job on a fresh machine: install, build, make a tagged demo set,
# show what Velvox reads from each file, convert the set to FLAC into folders
# named from the tags, and check that every output holds its source's audio.
# Everything lands in demo/: music/ (the sources), output/ (the conversions)
# and config/ (this run's preferences, so a user's own are never touched).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
bash scripts/build.sh

rm -rf demo
bash scripts/make-demo.sh demo/music
mkdir -p demo/output demo/config demo/data
export XDG_CONFIG_HOME=$PWD/demo/config XDG_DATA_HOME=$PWD/demo/data
velvox=build/velvox

echo
echo "==== What Velvox reads from each source"
find demo/music -type f | sort | tr '\n' '\0' | xargs -0 "$velvox" probe

echo
echo "==== Converting to FLAC (level 5), named {albumArtist}/{albumTitle}/{trackNumber} {trackTitle}"
# No terminal on stdin, so no question is asked; --overwrite replace makes a
# second run replace the first one's files.
"$velvox" convert -f flac:level=5 -o demo/output \
  --naming "{albumArtist}/{albumTitle}/{trackNumber} {trackTitle}" \
  --overwrite replace demo/music </dev/null | tee demo/convert.log

echo
echo "==== Files written"
find demo/output -type f | sort

echo
echo "==== Same audio? (MD5 of the decoded PCM of each source and its output)"
pcm_md5() { "$velvox" probe "$1" | awk '/pcmMD5:/ { print $2 }'; }
same=0
differ=0
while IFS= read -r line; do
  source=${line%% -> *}
  output=${line#* -> }
  a=$(pcm_md5 "$source")
  b=$(pcm_md5 "$output")
  if [ -n "$a" ] && [ "$a" = "$b" ]; then
    verdict="same PCM"
    same=$((same + 1))
  else
    verdict="DIFFERENT PCM"
    differ=$((differ + 1))
  fi
  echo "$verdict  $a  ${output#"$PWD"/}"
done < <(grep ' -> ' demo/convert.log)
echo "$same identical, $differ different"

echo
echo "==== The tags Velvox wrote into one output"
"$velvox" info "demo/output/Velvox Ensemble/Surround/01 5.1 Test.flac"
[ "$differ" -eq 0 ]
