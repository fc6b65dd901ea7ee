#!/usr/bin/env bash
# Makes the clips of tests/data/clips anew, and ffprobe's answer for each: tiny streams of every kind that the
# library reads, from synthetic pictures and tones. Needs ffmpeg; the tests need only what it leaves behind.
#   scripts/make-clips.sh [FOLDER]
set -euo pipefail
cd "$(dirname "$0")/.."
clips=${1:-tests/data/clips}
scripts/install-packages.sh clips
mkdir -p "$clips"
rm -f "$clips"/*
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

ffmpeg() { command ffmpeg -nostdin -loglevel error -y -fflags +bitexact "$@"; }

# video NAME SIZE RATE FRAMES encoder options…
video() {
  local name=$1 size=$2 rate=$3 frames=$4
  shift 4
  ffmpeg -f lavfi -i "testsrc=size=$size:rate=$rate" -frames:v "$frames" -flags:v +bitexact -threads 1 \
    -pix_fmt yuv420p "$@" "$clips/$name"
}
x264() { # NAME SIZE RATE FRAMES PARAMETERS options…
  local name=$1 size=$2 rate=$3 frames=$4 parameters=$5
  shift 5
  video "$name" "$size" "$rate" "$frames" -c:v libx264 -crf 40 -x264-params "threads=1:$parameters" "$@"
}
x265() { # NAME SIZE RATE FRAMES PARAMETERS options…
  local name=$1 size=$2 rate=$3 frames=$4 parameters=$5
  shift 5
  video "$name" "$size" "$rate" "$frames" -c:v libx265 -preset medium \
    -x265-params "log-level=none:pools=1:frame-threads=1:info=0:crf=40:$parameters" "$@"
}

x264 h264-baseline.264 176x144 25 8 keyint=4 -profile:v baseline
x264 h264-main.264 176x144 25 10 keyint=5:bframes=2 -profile:v main
x264 h264-high.264 352x288 30 10 keyint=5 -profile:v high
x264 h264-high10.264 176x144 25 5 keyint=5 -profile:v high10 -pix_fmt yuv420p10le
x264 h264-high422.264 176x144 25 5 keyint=5 -profile:v high422 -pix_fmt yuv422p
x264 h264-high444.264 176x144 25 5 keyint=5 -profile:v high444 -pix_fmt yuv444p
x264 h264-interlaced.264 352x288 25 6 keyint=4:tff=1:bframes=1 -profile:v high
x264 h264-interlaced-1080.264 1920x1080 25 2 keyint=4:tff=1:bframes=0 -profile:v high
x264 h264-slices.264 176x144 25 8 keyint=4:slices=4 -profile:v main
x264 h264-slices-aud.264 176x144 25 8 keyint=4:slices=3:aud=1 -profile:v high
x264 h264-aud.264 176x144 25 8 keyint=4:aud=1 -profile:v baseline
x264 h264-1080.264 1920x1080 30000/1001 3 keyint=2:ref=4 -profile:v high
x264 h264-cropped.264 178x146 25 5 keyint=5 -profile:v high
x264 h264-refs.264 176x144 25 12 keyint=12:ref=6:bframes=3:b-pyramid=normal:open-gop=1 -profile:v high
x264 h264-intra.264 176x144 25 4 keyint=1 -profile:v high
x264 h264-scaling-lists.264 176x144 25 5 keyint=5:cqm=jvt -profile:v high
x264 h264-filler.264 176x144 25 6 keyint=3:nal-hrd=cbr:vbv-maxrate=100:vbv-bufsize=100:bitrate=100 -profile:v main

x265 h265-main.265 176x144 25 8 keyint=4:bframes=0
x265 h265-bframes.265 176x144 25 12 keyint=12:bframes=4:b-pyramid=1
x265 h265-open-gop.265 176x144 25 12 keyint=6:min-keyint=6:open-gop=1:bframes=3
x265 h265-main10.265 176x144 25 4 keyint=4 -pix_fmt yuv420p10le
x265 h265-422.265 176x144 25 4 keyint=4 -pix_fmt yuv422p10le
x265 h265-slices.265 352x288 25 4 keyint=4:slices=4:bframes=0
x265 h265-aud.265 176x144 25 6 keyint=3:aud=1:repeat-headers=1
x265 h265-repeated-headers.265 176x144 25 6 keyint=2:repeat-headers=1:bframes=0
x265 h265-layers.265 176x144 25 8 keyint=8:bframes=3:b-adapt=0:temporal-layers=1
x265 h265-1080.265 1920x1080 25 2 keyint=2
x265 h265-cropped.265 178x146 25 3 keyint=3

video mpeg1-240.m1v 352x240 30000/1001 4 -c:v mpeg1video -b:v 300k -maxrate 460k -bufsize 320k -g 3
video mpeg1-film.m1v 176x144 24000/1001 4 -c:v mpeg1video -q:v 20 -g 3
video mpeg2-576i.m2v 720x576 25 2 -c:v mpeg2video -b:v 2M -maxrate 4M -bufsize 1835k -q:v 31 -flags:v +ildct+ilme+bitexact
video mpeg2-60.m2v 352x288 60 3 -c:v mpeg2video -q:v 25 -g 3
video mpeg2-422.m2v 176x144 50 3 -c:v mpeg2video -q:v 25 -pix_fmt yuv422p
video mpeg2-1080.m2v 1920x1080 30000/1001 1 -c:v mpeg2video -q:v 31 -maxrate 300M -bufsize 10M
video mpeg4-simple.m4v 176x144 25 4 -c:v mpeg4 -q:v 20 -g 3 -f m4v
video mpeg4-advanced.m4v 352x288 30000/1001 4 -c:v mpeg4 -q:v 25 -flags:v +qpel+mv4+bitexact -bf 2 -f m4v
video mpeg4-interlaced.m4v 352x288 25 3 -c:v mpeg4 -q:v 25 -flags:v +ildct+ilme+bitexact -f m4v
video mpeg4-xvid.m4v 176x144 15 4 -c:v libxvid -q:v 20 -f m4v

# audio NAME RATE CHANNELS encoder options…
audio() {
  local name=$1 rate=$2 channels=$3
  shift 3
  ffmpeg -f lavfi -i "sine=frequency=440:sample_rate=$rate:duration=0.35" -ac "$channels" -flags:a +bitexact \
    "$@" "$work/$name"
}
mp3() { # NAME RATE CHANNELS KBPS options…
  local name=$1 rate=$2 channels=$3 kbps=$4
  shift 4
  audio "$name" "$rate" "$channels" -c:a libmp3lame -b:a "${kbps}k" -id3v2_version 0 "$@"
  mv "$work/$name" "$clips/$name"
}
mp3 mp3-44100-128.mp3 44100 2 128
mp3 mp3-44100-plain.mp3 44100 2 96 -joint_stereo 0 -write_xing 0
mp3 mp3-48000-320.mp3 48000 2 320 -write_xing 0
mp3 mp3-32000-mono.mp3 32000 1 64
mp3 mp3-24000-lsf.mp3 24000 2 48 -write_xing 0
mp3 mp3-22050-lsf.mp3 22050 2 64
mp3 mp3-16000-lsf-mono.mp3 16000 1 24
mp3 mp3-12000-mpeg25.mp3 12000 2 32
mp3 mp3-11025-mpeg25.mp3 11025 1 16 -write_xing 0
mp3 mp3-8000-mpeg25-mono.mp3 8000 1 8
mp3 mp3-id3.mp3 44100 2 64 -id3v2_version 3 -metadata title="A tone" -metadata comment="in front of the frames"

# The fields of the stream's own headers, under their names in the standards.
elements="profile_idc level_idc constraint_set[0-5]_flag chroma_format_idc max_num_ref_frames pic_width_in_mbs_minus1
  pic_height_in_map_units_minus1 frame_mbs_only_flag
  vps_max_layers_minus1 vps_max_sub_layers_minus1 vps_temporal_id_nesting_flag sps_max_sub_layers_minus1
  sps_seq_parameter_set_id pic_(?:width|height)_in_luma_samples general_(?:profile_space|tier_flag|profile_idc|level_idc)
  general_profile_compatibility_flag\[[0-3]\] general_(?:progressive|interlaced)_source_flag
  general_(?:non_packed|frame_only)_constraint_flag
  bit_rate_value bit_rate_extension frame_rate_code frame_rate_extension_[nd]"
headers() { # FILE
  command ffmpeg -nostdin -hide_banner -i "$1" -map 0:v -c copy -bsf:v trace_headers -f null - 2>&1 |
    perl -ne 'BEGIN { ($names = shift) =~ s/\s+/|/g }
      print "|$1=$2" if /^\[trace_headers.*\]\s+\d+\s+($names)\s+[01]+ = (\d+)$/ && !$seen{$1}++' "$elements"
}

# What ffprobe says of a file, on one line behind the clip's name.
answer() { # NAME FILE
  local entries=codec_name,profile,level,width,height,coded_width,coded_height,pix_fmt
  entries+=,nal_length_size,r_frame_rate,bit_rate,sample_rate,channels,nb_read_packets
  printf '%s|%s' "$1" "$(ffprobe -v error -count_packets -show_entries "stream=$entries" \
    -of compact=print_section=0 "$2" | head -n 1 | sed "s/|$//")"
  case $1 in *.26? | *.m2v) headers "$2" ;; esac
  echo
}

# The decoder configuration of an MP4 file's only track, from ffprobe's dump of it.
configuration() { # FILE
  ffprobe -v error -show_streams -show_data -of json "$1" | perl -0777 -ne '
    /"extradata": "(.*?)"/s or die "no configuration"; my $dump = $1;
    while ($dump =~ /[0-9a-f]{8}: ((?:[0-9a-f]{2,4} )+)/g) { my $hex = $1; $hex =~ tr/ //d; print pack "H*", $hex }'
}

{
  for clip in "$clips"/*; do answer "$(basename "$clip")" "$clip"; done

  # Tracks of MP4 files: the configuration record, and for H.264 and H.265 all samples one behind another.
  for clip in h264-baseline h264-main h264-high h264-high10 h264-high444 h264-slices h264-1080 h265-main h265-main10 \
    h265-aud h265-1080; do
    file=$(echo "$clips/$clip".26?)
    record=$clip.$([[ $clip == h264* ]] && echo avcc || echo hvcc)
    ffmpeg -r 25 -i "$file" -c copy "$work/$clip.mp4"
    configuration "$work/$clip.mp4" >"$clips/$record"
    answer "$record" "$work/$clip.mp4"
    ffmpeg -i "$work/$clip.mp4" -c copy -map 0:v -f data "$clips/$clip.samples"
  done
  for clip in mpeg4-simple mpeg4-advanced; do
    ffmpeg -f m4v -i "$clips/$clip.m4v" -c copy "$work/$clip.mp4"
    configuration "$work/$clip.mp4" >"$clips/$clip.vol"
    answer "$clip.vol" "$work/$clip.mp4"
  done
  for kind in 44100:2 48000:1 22050:2 8000:1 96000:2 16000:1 32000:6; do
    clip=aac-${kind/:/-}
    audio "$clip.mp4" "${kind%:*}" "${kind#*:}" -c:a aac
    configuration "$work/$clip.mp4" | head -c 2 >"$clips/$clip.asc"
    answer "$clip.asc" "$work/$clip.mp4"
  done
} >"$work/ffprobe.txt"
mv "$work/ffprobe.txt" "$clips/ffprobe.txt"
du -cb "$clips"/* | tail -n 1
