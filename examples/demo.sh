#!/usr/bin/env bash
# The scenario `make demo` narrates: the sample component registered,
# listed, activated, described, asked to decode its own status codes and shown in its
# category; the registry checked and shown; then everything taken away again.
#
#     examples/demo.sh PREFIX EXAMPLES_BUILD SCRATCH_DIR
#
# PREFIX holds the installed runtime and tool, EXAMPLES_BUILD the examples
# built against it; SCRATCH_DIR is emptied and becomes the working directory
# and the registry's directory.
set -euo pipefail

if [ $# -ne 3 ]; then
    echo "usage: $0 PREFIX EXAMPLES_BUILD SCRATCH_DIR" >&2
    exit 2
fi
prefix=$(realpath "$1")
examples=$(realpath "$2")
scratch=$3

if [ -t 1 ]; then bold=$'\e[1m' dim=$'\e[2m' plain=$'\e[0m'; else bold='' dim='' plain=''; fi
step=0
# A numbered heading and a line on what the step shows.
step() {
    step=$((step + 1))
    printf '\n%s%d. %s%s\n' "$bold" "$step" "$1" "$plain"
    shift
    [ $# -eq 0 ] || printf '%s   %s%s\n' "$dim" "$*" "$plain"
}
# Echoes a command the way a person would type it, then runs it. `show`
# expects success and `show_failing` a failing status; the scenario goes on
# either way, and ends with status 1 when any step surprised it.
surprises=0
run_step() {
    local expected=$1
    shift
    printf '%s$ %s%s\n' "$bold" "$*" "$plain"
    local status=0
    case $1 in
        veltcom) shift; "$prefix/bin/veltcom" "$@" 2>&1 || status=$? ;;
        greet) shift; "$examples/greet" "$@" 2>&1 || status=$? ;;
        *) "$@" 2>&1 || status=$? ;;
    esac
    [ "$status" -eq 0 ] || printf '%s(exit status %d)%s\n' "$dim" "$status" "$plain"
    if [ "$expected" = ok ] && [ "$status" -ne 0 ]; then
        printf '%s!! this step should have succeeded%s\n' "$bold" "$plain"
        surprises=$((surprises + 1))
    elif [ "$expected" = failing ] && [ "$status" -eq 0 ]; then
        printf '%s!! this step should have failed%s\n' "$bold" "$plain"
        surprises=$((surprises + 1))
    fi
}
show() { run_step ok "$@"; }
show_failing() { run_step failing "$@"; }

rm -rf "$scratch"
mkdir -p "$scratch"
cd "$scratch"
export COMLIB=$PWD
cp "$examples/libgreeter.so" .

printf '%ssysCom demo%s\n' "$bold" "$plain"
printf '   runtime and tool: %s\n' "$prefix"
printf '   scratch directory (working directory and $COMLIB): %s\n' "$PWD"
show ls

step "Register the runtime's own classes" \
     "the registry, the category manager, the memory object and the hresult binder that routes status codes to decoders"
show veltcom register libveltcom.so

step "Register the sample component" \
     "libgreeter.so's DllRegisterServer writes the greeter, its status decoder, its category and the moniker value for facility 0x71"
show veltcom register ./libgreeter.so

step "List the registered classes"
show veltcom classes

step "Create the greeter by ProgID" \
     "the runtime finds Sample.Greeter's InprocServer32, loads ./libgreeter.so and asks its factory"
show veltcom create Sample.Greeter

step "Describe the greeter" \
     "registration recorded ISampleGreeter's type information, compiled into libgreeter.so from greeter.idl"
show veltcom describe Sample.Greeter

step "Call it from the sample application" \
     "greet creates Sample.Greeter, greets twice in French, then makes it fail twice; the runtime decodes each status through the greeter's decoder"
show greet Ada fr

step "Decode the greeter's status codes with the tool" \
     "facility 0x71 is the greeter's own: COM_DecodeHRESULT binds hresult:71 to Sample.GreeterStatus"
show veltcom decode 0x00710001 0x80710002 0x80710003 0x80710099
printf '%s   a runtime code, for comparison, comes from the built-in table:%s\n' "$dim" "$plain"
show veltcom decode 0x80040111

step "Show the component's category"
show veltcom categories
show veltcom categories _27D97DA4-5D1F-47be-B1BC-760CE45B5971_

step "Check the registry" "a complete registration leaves nothing to mend"
show veltcom check

step "What a broken installation looks like" \
     "the library goes missing while its classes stay registered"
mv libgreeter.so libgreeter.so.away
show_failing veltcom check
show_failing greet
mv libgreeter.so.away libgreeter.so

step "The registry file" "Registry.XML, as the runtime wrote it"
if command -v xmllint >/dev/null; then show xmllint --format Registry.XML; else show cat Registry.XML; fi

step "Unregister the sample" \
     "its classes, category and decoder value go with the last installation"
show veltcom unregister ./libgreeter.so
show veltcom classes
show_failing veltcom decode 0x80710003
show veltcom check

if [ "$surprises" -ne 0 ]; then
    printf '\n%s%d step(s) did not go as the scenario expects.%s\n' "$bold" "$surprises" "$plain"
    exit 1
fi
printf '\n%sDone.%s Build your own component: docs/components.md\n' "$bold" "$plain"
