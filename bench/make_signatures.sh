#!/usr/bin/env bash
# Writes a signature database of made-up signatures in ClamAV's text formats,
# shaped like the official one: mostly file hashes, some body patterns and a
# few logical signatures. No signature matches anything on purpose; the
# database exists to be loaded, so that a clamd holds what it would hold with
# definitions of that size.
#
#   bench/make_signatures.sh FOLDER [TOTAL] [SEED]   (defaults 500000, 1)
#
# Share of TOTAL per file (each signature one line):
#   bench.hdb  45 %  MD5:size:name              whole-file MD5
#   bench.mdb  15 %  size:MD5:name              PE section MD5
#   bench.hsb  25 %  SHA256:size:name (1 in 5 SHA1)
#   bench.ndb  12 %  name:target:offset:hex     body patterns, 3 in 5 with
#                                               wildcards (??, a?, *, {n-m},
#                                               {-n}, (aa|bb), [n-m])
#   bench.ldb   3 %  name;Engine:51-255,Target:T;expression;subsig;...
#                                               2 to 5 subsignatures each
# Names look like the official ones (Win.Trojan.Agent-1234567-0), every one
# different. The same SEED writes the same files.
set -euo pipefail
folder=${1:?usage: make_signatures.sh FOLDER [TOTAL] [SEED]}
total=${2:-500000}
seed=${3:-1}
[[ $total =~ ^[0-9]+$ && $total -ge 100 ]] || { echo "TOTAL must be a number of at least 100" >&2; exit 2; }
mkdir -p "$folder"

# mawk is in every Debian system; nothing here needs gawk.
awk -v total="$total" -v seed="$seed" -v dir="$folder" '
function hex16() { return sprintf("%04x", int(rand() * 65536)) }
function hexbytes(n,    s, i) {
    s = ""
    for (i = 0; i + 2 <= n; i += 2) s = s hex16()
    if (i < n) s = s sprintf("%02x", int(rand() * 256))
    return s
}
function pick(list,    a, n) { n = split(list, a, " "); return a[int(rand() * n) + 1] }
function between(lo, hi) { return lo + int(rand() * (hi - lo + 1)) }
function name(platform,    id) {
    id = 1000000 + (serial++)
    return platform "." pick(categories) "." pick(families) "-" id "-" int(rand() * 3)
}
# A file size spread evenly over the magnitudes from 1 kB to 16 MB, as
# malware sizes are.
function filesize() { return int(exp(log(1024) + rand() * log(16384))) }
# Printable text, for patterns aimed at HTML, scripts and mail (the engine
# matches those after normalising them to lower case).
function texthex(n,    s, i, c) {
    s = ""
    for (i = 0; i < n; i++) {
        c = substr(alphabet, int(rand() * length(alphabet)) + 1, 1)
        s = s sprintf("%02x", ord[c])
    }
    return s
}
# A run of N fixed bytes; binary patterns often begin with a common
# opening (a function prologue, a call, a header), which the trie of the
# matcher shares between them.
function fixed(n, text, first,    s) {
    if (text) return texthex(n)
    if (first && rand() < 0.4) { s = pick(openings); return s hexbytes(n - length(s) / 2) }
    return hexbytes(n)
}
# A body pattern: one fixed run, or several joined by wildcards. Every part
# that a wildcard separates keeps at least 3 fixed bytes; a [n-m] range joins
# a last single byte to the run before it.
function pattern(text, wild,    s, parts, i, w, b) {
    if (!wild) return fixed(between(12, 48), text, 1)
    parts = between(2, 5)
    s = fixed(between(4, 16), text, 1)
    for (i = 2; i <= parts; i++) {
        w = rand()
        if (w < 0.30) s = s "??" (rand() < 0.5 ? "??" : "")
        else if (w < 0.45) s = s "*"
        else if (w < 0.65) { b = between(1, 32); s = s "{" b "-" b + between(1, 64) "}" }
        else if (w < 0.72) s = s "{-" between(2, 40) "}"
        else if (w < 0.85) s = s "(" hexbytes(1) "|" hexbytes(1) (rand() < 0.3 ? "|" hexbytes(1) : "") ")"
        else if (w < 0.93) s = s sprintf("%x", int(rand() * 16)) "?"
        else if (i == parts) { s = s "[1-" between(2, 8) "]" hexbytes(1); break }
        else s = s "??"
        s = s fixed(between(3, 16), text, 0)
    }
    return s
}
function offset(target,    r) {
    r = rand()
    if (r < 0.65) return "*"
    if ((target == 1 || target == 6) && r < 0.82) return "EP+" between(0, 512) (rand() < 0.5 ? "," between(1, 64) : "")
    if (r < 0.88) return between(0, 1024)
    if (r < 0.94) return "EOF-" between(16, 4096)
    return between(0, 4096) "," between(16, 1024)
}
function platformOf(target) {
    if (target == 1) return "Win"
    if (target == 6) return "Unix"
    if (target == 2) return "Doc"
    if (target == 10) return "Pdf"
    if (target == 3) return pick("Html Js")
    if (target == 4) return "Email"
    if (target == 7) return pick("Txt Js Php Vbs")
    return pick("Multios Win Unix Andr Osx")
}
BEGIN {
    srand(seed)
    categories = "Trojan Malware Downloader Dropper Exploit Virus Worm Ransomware Adware Packed Coinminer Backdoor Keylogger Spyware Phishing"
    families = "Agent Generic Emotet Zbot Ramnit Sality Virut Mirai Gafgyt Tinba Qakbot Dridex Ursnif Lokibot Formbook Remcos Nanocore AgentTesla Tofsee Xmrig Vobfus Upatre Kryptik Zusy Razy Bladabindi Fareit Nemucod Locky Cerber Wannacry Ryuk Conti Gandcrab Cobaltstrike Metasploit Swrort Shellcode Coinhive Adwind Jrat Hiddad Triada Joker Flubot Phish Iframe Redirector"
    openings = "558bec 558bec83ec 5589e5 e8000000005d 4d5a9000 6a0068 60e8 ffd0 ff15 4883ec28 488d05 8bff558bec 7f454c46 25504446 d0cf11e0 504b0304"
    alphabet = "abcdefghijklmnopqrstuvwxyz0123456789 ._-(){}<>=;/\""
    for (i = 32; i < 127; i++) ord[sprintf("%c", i)] = i
    targets = "1 1 1 1 1 1 1 0 0 0 3 3 7 7 6 6 2 10 4"

    nhdb = int(total * 0.45); nmdb = int(total * 0.15); nhsb = int(total * 0.25)
    nndb = int(total * 0.12); nldb = total - nhdb - nmdb - nhsb - nndb

    f = dir "/bench.hdb"
    for (i = 0; i < nhdb; i++) print hexbytes(16) ":" filesize() ":" name(pick("Win Win Win Unix Doc Pdf Andr Multios")) > f
    close(f)
    f = dir "/bench.mdb"
    for (i = 0; i < nmdb; i++) print (512 * between(1, 2048)) ":" hexbytes(16) ":" name("Win") > f
    close(f)
    f = dir "/bench.hsb"
    for (i = 0; i < nhsb; i++) print hexbytes(rand() < 0.2 ? 20 : 32) ":" filesize() ":" name(pick("Win Win Unix Andr Osx Doc Multios")) > f
    close(f)
    f = dir "/bench.ndb"
    for (i = 0; i < nndb; i++) {
        t = pick(targets)
        text = (t == 3 || t == 4 || t == 7)
        print name(platformOf(t)) ":" t ":" offset(t) ":" pattern(text, rand() < 0.6) > f
    }
    close(f)
    f = dir "/bench.ldb"
    expressions[2] = "0&1 (0|1)>1"
    expressions[3] = "0&1&2 (0|1)&2 0&(1|2) (0|1|2)>1"
    expressions[4] = "0&1&2&3 (0&1)&(2|3) (0|1|2|3)>2 0&1&(2|3)"
    expressions[5] = "0&1&2&3&4 (0|1)&2&(3|4) (0|1|2|3|4)>2,2"
    for (i = 0; i < nldb; i++) {
        t = pick(targets)
        text = (t == 3 || t == 4 || t == 7)
        k = between(2, 5)
        line = name(platformOf(t)) ";Engine:51-255,Target:" t ";" pick(expressions[k])
        for (j = 0; j < k; j++) {
            sub_ = pattern(text, rand() < 0.4)
            if (j == 0 && rand() < 0.3 && (o = offset(t)) != "*") sub_ = o ":" sub_
            line = line ";" sub_
        }
        print line > f
    }
    close(f)
    printf "hdb %d, mdb %d, hsb %d, ndb %d, ldb %d: %d signatures\n", nhdb, nmdb, nhsb, nndb, nldb, total
}
'
