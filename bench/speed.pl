#!/usr/bin/perl
# How fast a record goes between its hash form and its wire bytes, by every
# route, measured side by side in one run:
#   - the record class's two paths, new(\%h)->pack and new($bytes)->to_hashref,
#     and each of their steps alone (new, pack, to_hashref, DESTROY);
#   - the codec's encode_event and decode_event;
#   - JSON::XS (the yardstick of every ratio), Sereal, CBOR::XS and the
#     pure-Perl protocol-buffer library on the same hashes;
#   - the protobuf runtime's own ParseFromString and SerializeToString in C++
#     on the same bytes (bench/limit.cc, built here): the limit;
#   - a string getter beside an empty method call;
#   - the cost per record and per byte over records of 100 B to 1 MB.
# Each round runs every case once, in a shuffled order, for about the same
# time; figures are medians over the rounds with their spread (lowest..
# highest), and every ratio is the median of the ratios taken round by round,
# so a slow moment of the machine hits both sides of a ratio alike.  Targets
# are printed beside the figures, each marked ok or MISS.
#
#   perl -Mblib bench/speed.pl [--rounds 31] [--ms 12] [--wall] [--markdown] [--readme]
#   perl -Mblib bench/speed.pl --callgrind typical class-encode [--calls 2000]
#   perl -Mblib bench/speed.pl --list
#
# See bench/README.md for what each figure means.
use strict;
use warnings;
use Getopt::Long;
use File::Temp qw(tempdir);
use List::Util qw(shuffle);
use Time::HiRes ();
use FindBin;
use lib "$FindBin::Bin/lib", "$FindBin::Bin/../t/lib";
use QelBench qw(%typical %small %large median);
use quillon_event_log::QuillonEventLog;
use quillon_event_log::Codec ();

# The allocator's thresholds fixed for the whole run.  glibc's malloc moves
# its mmap and trim thresholds as blocks are freed, so whether a 1 MB string
# costs 256 page faults each time depended on which case ran before it: a
# per-byte figure tripled from one run to the next.  Fixed high, large blocks
# come from the heap and stay there, for every library alike.  --default-malloc
# keeps glibc's moving thresholds.
my $TUNABLES = 'glibc.malloc.mmap_threshold=33554432:glibc.malloc.trim_threshold=268435456';
if (!grep({ $_ eq '--default-malloc' } @ARGV) && ($ENV{GLIBC_TUNABLES} // '') ne $TUNABLES) {
    $ENV{GLIBC_TUNABLES} = $TUNABLES;
    $ENV{PERL5LIB} = join ':', grep { !ref } @INC;
    exec $^X, $0, @ARGV or die "cannot run $^X again: $!\n";
}

my %opt = (rounds => 31, ms => 12, calls => 2000);
GetOptions(\%opt, 'rounds=i', 'ms=f', 'wall', 'markdown', 'readme', 'no-limit', 'seed=i',
                  'only=s', 'default-malloc', 'callgrind', 'calls=i', 'out=s', 'run', 'list', 'help')
    or usage();
usage() if $opt{help};
sub usage {
    print STDERR <<'USAGE';
usage: perl -Mblib bench/speed.pl [--rounds N] [--ms MS] [--wall] [--markdown | --readme] [--no-limit]
       perl -Mblib bench/speed.pl --callgrind SHAPE CASE [--calls N] [--out FILE]
       perl -Mblib bench/speed.pl --list
  --rounds N   rounds over all cases (default 31); more rounds, steadier medians
  --ms MS      CPU milliseconds each case runs per round (default 12)
  --wall       time by the wall clock instead of the process's CPU time
  --markdown   print the tables as markdown
  --readme     rewrite the results section of bench/README.md with this run's tables
  --no-limit   skip the C++ program
  --default-malloc  keep glibc malloc's moving mmap and trim thresholds (fixed high otherwise)
  --only RE    time only the cases whose "shape case" matches RE, the other figures left blank
  --seed N     the seed of the shuffled order (default 1)
  --callgrind  instructions per record of one case, counted by valgrind's callgrind
  --list       the shapes and cases --callgrind accepts
USAGE
    exit 2;
}
$opt{markdown} = 1 if $opt{readme};

my $C = 'quillon_event_log::QuillonEventLog';

# ---- the records -----------------------------------------------------------

my @SHAPES = ([typical => \%typical], [small => \%small], [large => \%large]);

# Records of a given size on the wire: the small record with an http_request
# grown until the whole encoding is exactly that long.
my @SIZES = ([100 => '100 B'], [1_000 => '1 KB'], [10_000 => '10 KB'], [100_000 => '100 KB'], [1_000_000 => '1 MB']);
sub record_of_size {
    my ($want) = @_;
    my $text = $typical{http_request};
    my $len = 0;
    for (1 .. 10) {
        my %h = (%small, http_request => substr($text x (1 + int($len / length $text)), 0, $len));
        my $got = length quillon_event_log::Codec::encode_event(\%h);
        return \%h if $got == $want;
        $len += $want - $got;
        $len = 0 if $len < 0;
    }
    die "no record of exactly $want bytes\n";
}
my @SWEEP = map { ["size-$_->[0]", record_of_size($_->[0]), $_->[1], $_->[0]] } @SIZES;
my %HASH_OF = ((map { $_->[0] => $_->[1] } @SHAPES), (map { $_->[0] => $_->[1] } @SWEEP));

# ---- the cases -------------------------------------------------------------

# path => [setup, loop body, teardown]: Perl code run with $n (calls) and $i
# (the call's index) in scope.  Every body assigns its result to $x, so no
# route can skip work that a caller in void context would not need.
my %PATH = (
    'class-encode'   => ['', '$x = CLASS->new($h)->pack;'],
    'new-hash'       => ['', '$x = CLASS->new($h);'],
    'new-hash-kept'  => ['my @k; $#k = $n - 1;', '$k[$i] = CLASS->new($h);', '@k = ();'],
    'pack'           => ['my $o = CLASS->new($h);', '$x = $o->pack;'],
    'destroy-hash'   => ['my @k = map { CLASS->new($h) } 1 .. $n;', 'undef $k[$i];'],
    'class-decode'   => ['', '$x = CLASS->new($b)->to_hashref;'],
    'new-bytes'      => ['', '$x = CLASS->new($b);'],
    'new-bytes-kept' => ['my @k; $#k = $n - 1;', '$k[$i] = CLASS->new($b);', '@k = ();'],
    'to_hashref'     => ['my $o = CLASS->new($b);', '$x = $o->to_hashref;'],
    'destroy-bytes'  => ['my @k = map { CLASS->new($b) } 1 .. $n;', 'undef $k[$i];'],
    'codec-encode'   => ['', '$x = quillon_event_log::Codec::encode_event($h);'],
    'codec-decode'   => ['', '$x = quillon_event_log::Codec::decode_event($b);'],
    'json-encode'    => ['', '$x = $json->encode($h);'],
    'json-decode'    => ['', '$x = $json->decode($j);'],
    'sereal-encode'  => ['', '$x = $senc->encode($h);'],
    'sereal-decode'  => ['', '$x = $sdec->decode($s);'],
    'cbor-encode'    => ['', '$x = $cbor->encode($h);'],
    'cbor-decode'    => ['', '$x = $cbor->decode($c);'],
    'peer-encode'    => ['', '$x = $peer->encode($h);'],
    'peer-decode'    => ['', '$x = $peer->decode($b);'],
    # The getter beside empty method calls; 'loop' is the loop and the
    # assignment alone, taken off all three.
    'loop'              => ['my $o = CLASS->new($h);', '$x = $o;'],
    'string-getter'     => ['my $o = CLASS->new($h);', '$x = $o->bot_name;'],
    'empty-xsub-method' => ['my $o = bless \(my $v = 1), "QelSpeed::Empty";', '$x = $o->xsub;'],
    'empty-perl-method' => ['my $o = bless \(my $v = 1), "QelSpeed::Empty";', '$x = $o->perl;'],
);
# An XSUB that does next to nothing (core's utf8::is_utf8, false for a
# reference), and a Perl method with an empty body.
{ no warnings 'once'; *QelSpeed::Empty::xsub = \&utf8::is_utf8; }
sub QelSpeed::Empty::perl { }

my @STEP_PATHS = qw(class-encode new-hash new-hash-kept pack destroy-hash
                    class-decode new-bytes new-bytes-kept to_hashref destroy-bytes
                    codec-encode codec-decode json-encode json-decode);
my @PEER_PATHS = qw(sereal-encode sereal-decode cbor-encode cbor-decode peer-encode peer-decode);
my @SWEEP_PATHS = qw(class-encode class-decode codec-encode codec-decode json-encode json-decode);
my @GETTER_PATHS = qw(loop string-getter empty-xsub-method empty-perl-method);

# The other libraries, each optional but JSON::XS.
my $json = eval { require JSON::XS; JSON::XS->new }
    or die "JSON::XS is the yardstick: apt-get install libjson-xs-perl\n";
my ($senc, $sdec) = eval { require Sereal::Encoder; require Sereal::Decoder;
                           (Sereal::Encoder->new, Sereal::Decoder->new) };
my $cbor = eval { require CBOR::XS; CBOR::XS->new };
# The pure-Perl library compiles the schema at start-up, which takes long
# under valgrind: a --callgrind run of another case does without it.
my $one_case = $opt{run} || $opt{callgrind};
my $peer = $one_case && ($ARGV[1] // '') !~ /^peer-/ ? undef
         : eval { require QelTest; QelTest::perl_peer_skip_reason() ? undef : QelTest::perl_peer() };
my %MISSING = (
    sereal => $senc ? undef : 'Sereal is not installed (apt-get install libsereal-perl)',
    cbor   => $cbor ? undef : 'CBOR::XS is not installed (apt-get install libcbor-xs-perl)',
    peer   => $peer ? undef : 'Google::ProtocolBuffers is not installed (apt-get install libgoogle-protocolbuffers-perl)',
);
sub available { my ($path) = @_; my ($lib) = $path =~ /^(sereal|cbor|peer)-/; !($lib && $MISSING{$lib}) }

my $CLOCK = $opt{wall} ? sub { Time::HiRes::time() }
          : sub { Time::HiRes::clock_gettime(Time::HiRes::CLOCK_PROCESS_CPUTIME_ID()) };

# A case: its code, a sub that runs $n calls and returns the seconds they took.
sub compile_case {
    my ($shape, $path) = @_;
    my $h = $HASH_OF{$shape} or die "no shape '$shape' (see --list)\n";
    my $case = $PATH{$path} or die "no case '$path' (see --list)\n";
    available($path) or die "$path: " . (grep { defined } @MISSING{qw(sereal cbor peer)})[0] . "\n";
    my ($setup, $body, $teardown) = (@$case, '', '');
    # The class is named as callers name it, a bareword: CLASS->new(...).
    s/\bCLASS->/${C}->/g for $setup, $body, $teardown;
    my $b = quillon_event_log::Codec::encode_event($h);
    my $j = $json->encode($h);
    my $s = $senc ? $senc->encode($h) : undef;
    my $c = $cbor ? $cbor->encode($h) : undef;
    my $now = $CLOCK;
    # The libraries, as lexicals of this sub for the code compiled below.
    my ($C, $json, $senc, $sdec, $cbor, $peer) = ($C, $json, $senc, $sdec, $cbor, $peer);
    my $code = eval qq{
        sub {
            my \$n = shift;
            my \$x;
            $setup;
            my \$t0 = \$now->();
            for my \$i (0 .. \$n - 1) { $body }
            my \$t = \$now->() - \$t0;
            $teardown;
            return \$t;
        }
    } or die "case $shape $path: $@";
    return $code;
}

# ---- callgrind -------------------------------------------------------------

if ($opt{list}) {
    print "shapes: ", join(' ', map { $_->[0] } @SHAPES, @SWEEP), "\n";
    print "cases:  ", join(' ', grep { available($_) } sort keys %PATH), "\n";
    exit 0;
}

# --run SHAPE CASE N: the child of --callgrind, N calls untimed.
if ($opt{run}) {
    my ($shape, $path, $n) = @ARGV;
    compile_case($shape, $path)->($n);
    exit 0;
}

if ($opt{callgrind}) {
    my ($shape, $path) = @ARGV;
    defined $path or usage();
    compile_case($shape, $path);    # dies early on a misspelt name
    my ($valgrind) = grep { -x } map { "$_/valgrind" } split /:/, $ENV{PATH};
    $valgrind or die "valgrind is not installed (apt-get install valgrind)\n";
    my $n = $opt{calls};
    my $dir = tempdir(CLEANUP => 1);
    my $keep = $opt{out} // "/tmp/qel-callgrind.$shape.$path.out";
    local $ENV{PERL5LIB} = join ':', grep { !ref } @INC;
    # A fixed hash seed and key order: the same count on every run.
    local $ENV{PERL_HASH_SEED} = 0;
    local $ENV{PERL_PERTURB_KEYS} = 0;
    my %ir;
    # Two runs, of N and of 2N calls: the difference is N calls' worth, the
    # start-up and the first calls' warming of caches cancel out.
    for my $calls ($n, 2 * $n) {
        my $file = $calls == 2 * $n ? $keep : "$dir/cg.out";
        system($valgrind, '--tool=callgrind', '--quiet', "--callgrind-out-file=$file",
               $^X, $0, '--run', $shape, $path, $calls) == 0
            or die "valgrind failed on $shape $path ($calls calls)\n";
        open my $fh, '<', $file or die "cannot read $file: $!\n";
        while (<$fh>) { $ir{$calls} = $1 if /^(?:summary|totals):\s+(\d+)/ }
        defined $ir{$calls} or die "no instruction total in $file\n";
    }
    my $per = ($ir{2 * $n} - $ir{$n}) / $n;
    printf "%s %s: %.0f instructions per record (callgrind, %d calls minus %d; the loop and the assignment included, see the case 'loop')\n",
        $shape, $path, $per, 2 * $n, $n;
    print "profile of the run of ", 2 * $n, " calls: callgrind_annotate $keep\n";
    exit 0;
}

# ---- the checks before timing ----------------------------------------------

for my $shape (@SHAPES, @SWEEP) {
    my ($name, $h) = @$shape;
    my $bytes = quillon_event_log::Codec::encode_event($h);
    $C->new($h)->pack eq $bytes or die "$name: the class and the codec write different bytes\n";
    if ($peer && $peer->encode($h) ne $bytes) {
        warn "$name: the pure-Perl library writes other bytes than the codec\n";
    }
}

# ---- the C++ limit ---------------------------------------------------------

my $tmp = tempdir('qel-speed-XXXXXX', TMPDIR => 1, CLEANUP => 1);
my ($limit_bin, $limit_file, $limit_why);
sub build_limit {
    return 'skipped (--no-limit)' if $opt{'no-limit'};
    my $top = "$FindBin::Bin/..";
    -f "$top/src/quillon_event_log.pb.cc" or return 'src/quillon_event_log.pb.cc is missing: run make first';
    system('g++ --version >/dev/null 2>&1') == 0 or return 'g++ is not installed (apt-get install g++)';
    system('pkg-config --exists protobuf') == 0
        or return 'pkg-config protobuf is not available (apt-get install pkg-config libprotobuf-dev)';
    chomp(my $cflags = `pkg-config --cflags protobuf`);
    chomp(my $libs   = `pkg-config --libs protobuf`);
    my $bin = "$tmp/limit";
    my $cmd = "g++ -O2 -std=gnu++17 -I'$top/src' $cflags '$top/bench/limit.cc' '$top/src/quillon_event_log.pb.cc'"
            . " $libs -o '$bin' > '$tmp/build.log' 2>&1";
    system($cmd) == 0 or return "bench/limit.cc does not build:\n" . do { local (@ARGV, $/) = "$tmp/build.log"; <> };
    $limit_bin = $bin;
    $limit_file = "$tmp/records.bin";
    open my $fh, '>:raw', $limit_file or die "cannot write $limit_file: $!\n";
    for my $shape (@SHAPES, @SWEEP) {
        my $bytes = quillon_event_log::Codec::encode_event($shape->[1]);
        print $fh pack('V/a* V/a*', $shape->[0], $bytes);
    }
    close $fh or die "cannot write $limit_file: $!\n";
    return undef;
}
$limit_why = build_limit();
warn "the C++ limit: $limit_why\n" if $limit_why;
my %limit_same;
# One run of the program: every record's three figures, into %$times.
sub run_limit {
    my ($times) = @_;
    my $ms = $opt{ms} / 3;
    open my $fh, '-|', $limit_bin, $limit_file, $ms or die "cannot run $limit_bin: $!\n";
    while (<$fh>) {
        my ($name, $parse, $parse_new, $serialize, $same) = split;
        push @{ $times->{"$name limit-parse"} }, $parse;
        push @{ $times->{"$name limit-parse-new"} }, $parse_new;
        push @{ $times->{"$name limit-serialize"} }, $serialize;
        $limit_same{$name} = $same;
    }
    close $fh or die "$limit_bin failed\n";
}

# ---- timing ----------------------------------------------------------------

my @cases;    # [id, code, calls per round]
for my $shape (@SHAPES) {
    push @cases, map { ["$shape->[0] $_", compile_case($shape->[0], $_)] } grep { available($_) } @STEP_PATHS, @PEER_PATHS;
}
push @cases, map { ["typical $_", compile_case('typical', $_)] } @GETTER_PATHS;
for my $size (@SWEEP) {
    push @cases, map { ["$size->[0] $_", compile_case($size->[0], $_)] } @SWEEP_PATHS;
}
# --only REGEX: the cases whose "shape path" matches, the other figures left blank.
@cases = grep { $_->[0] =~ $opt{only} } @cases if defined $opt{only};

# Calls per round: grown until a run takes a tenth of the budget, then scaled
# to fill it.  This also warms every case up before the first round.
my $budget = $opt{ms} / 1000;
for my $case (@cases) {
    my $n = 1;
    while (1) {
        my $t = $case->[1]->($n);
        if ($t >= $budget / 10 || $n >= 1 << 24) {
            $case->[2] = int($n * $budget / ($t || $budget)) || 1;
            last;
        }
        $n *= 4;
    }
}

my $started = time;
my %times;    # "shape path" => [ns per call, one per round]
srand($opt{seed} // 1);
for my $round (1 .. $opt{rounds}) {
    my @order = shuffle(@cases, $limit_bin ? ('limit') : ());
    for my $case (@order) {
        if (!ref $case) { run_limit(\%times); next }
        my ($id, $code, $n) = @$case;
        # What the case before left to do is done first, untimed.  Freeing
        # thousands of records leaves glibc's allocator hundreds of thousands
        # of freed chunks to sort, which it does in the next calls that want
        # more than a small chunk, up to 10,000 chunks each: tens of
        # milliseconds that landed in whichever case came next.  Two hundred
        # strings of 2,000 bytes sort them now; then a tenth of the calls
        # warms the case up.
        { my @settle = map { 'x' x 2000 } 1 .. 200; }
        $code->(int($n / 10) + 2);
        push @{ $times{$id} }, $code->($n) / $n * 1e9;
    }
}
my $elapsed = time - $started;

# ---- statistics ------------------------------------------------------------

sub med    { my $t = $times{"@_"} or return undef; median(@$t) }
sub spread { my $t = $times{"@_"} or return ''; my @s = sort { $a <=> $b } @$t; ns($s[0]) . '..' . ns($s[-1]) }
# The median over rounds of a/b, both of the same round.
sub ratio {
    my ($num, $den) = @_;
    my ($ta, $tb) = ($times{$num}, $times{$den});
    return undef unless $ta && $tb && @$ta == @$tb;
    return median(map { $ta->[$_] / $tb->[$_] } 0 .. $#$ta);
}
sub ns { my $v = shift; !defined $v ? '-' : $v >= 100 ? sprintf('%.0f', $v) : sprintf('%.1f', $v) }
sub x  { my $v = shift; defined $v ? sprintf('%.2f', $v) : '-' }

# ---- output ----------------------------------------------------------------

my $out = '';
sub say_ { $out .= join('', @_) . "\n" }
# table($title, \@head, @rows): aligned text, or markdown with --markdown.
sub table {
    my ($title, $head, @rows) = @_;
    if ($opt{markdown}) {
        say_("**$title**\n");
        say_('| ' . join(' | ', @$head) . ' |');
        say_('|' . join('|', ':--', map { '--:' } 1 .. $#$head) . '|');
        say_('| ' . join(' | ', map { my $c = $_; $c =~ s/\|/\\|/g; $c } @$_) . ' |') for @rows;
        say_('');
        return;
    }
    my @w = map { my $i = $_; (sort { $b <=> $a } map { length($_->[$i] // '') } $head, @rows)[0] } 0 .. $#$head;
    say_($title);
    for my $row ($head, @rows) {
        say_('  ' . join('  ', map { $_ == 0 ? sprintf('%-*s', $w[0], $row->[0]) : sprintf('%*s', $w[$_], $row->[$_] // '') }
                                0 .. $#$head) =~ s/\s+$//r);
    }
    say_('');
}
sub verdict { my ($v, $max) = @_; defined $v ? ($v <= $max ? 'ok' : 'MISS') : '-' }

my %ENCODE_TARGET = (typical => 0.70, small => 0.80, large => 0.45);
my %DECODE_TARGET = (typical => 0.70, small => 1.00, large => 0.45);

# Each direction's rows of a shape's table: the class's path with its target
# and its steps, then (in the loop below) the codec, the other libraries and
# the C++ program.
my %CLASS_ROWS = (
    encode => ['class encode: new(\%h)->pack', 'class-encode', \%ENCODE_TARGET,
               ['  new(\%h), dropped', 'new-hash'], ['  new(\%h), kept', 'new-hash-kept'],
               ['  pack', 'pack'], ['  DESTROY', 'destroy-hash']],
    decode => ['class decode: new($bytes)->to_hashref', 'class-decode', \%DECODE_TARGET,
               ['  new($bytes), dropped', 'new-bytes'], ['  new($bytes), kept', 'new-bytes-kept'],
               ['  to_hashref', 'to_hashref'], ['  DESTROY', 'destroy-bytes']],
);
my %LIMIT_ROWS = (
    encode => [['C++ SerializeToString', 'limit-serialize']],
    decode => [['C++ ParseFromString, reused message', 'limit-parse'],
               ['C++ ParseFromString, new message', 'limit-parse-new']],
);
my $PEER_TARGET = 20;
my @misses;

chomp(my $cpu = `lscpu 2>/dev/null | sed -n 's/^Model name: *//p'` || 'unknown CPU');
chomp(my $nproc = `nproc 2>/dev/null` || '?');
chomp(my $kernel = `uname -sr 2>/dev/null` || $^O);
chomp(my $pbv = `pkg-config --modversion protobuf 2>/dev/null` || '?');
my $gxx = (`g++ -dumpfullversion 2>/dev/null` // '') =~ s/\s+//gr || '?';
say_(sprintf 'machine: %s, %s CPUs, %s; perl %vd; libprotobuf %s; g++ %s', $cpu, $nproc, $kernel, $^V, $pbv, $gxx);
say_(sprintf 'JSON::XS %s, Sereal %s, CBOR::XS %s, Google::ProtocolBuffers %s',
    $JSON::XS::VERSION, $senc ? $Sereal::Encoder::VERSION : '-', $cbor ? $CBOR::XS::VERSION : '-',
    $peer ? $Google::ProtocolBuffers::VERSION : '-');
say_(sprintf '%d rounds, every case %g ms of %s time per round, order shuffled each round; %.0f s; malloc: %s',
    $opt{rounds}, $opt{ms}, $opt{wall} ? 'wall-clock' : 'CPU', $elapsed,
    $opt{'default-malloc'} ? "glibc's defaults" : "GLIBC_TUNABLES=$TUNABLES");
say_('ns: median nanoseconds per record over the rounds (lowest..highest); x JSON: median of the');
say_('per-round ratios to JSON::XS encode (encode rows) or decode (decode rows) of the same record.');
say_('');

for my $shape (@SHAPES) {
    my $name = $shape->[0];
    my $bytes = quillon_event_log::Codec::encode_event($shape->[1]);
    my @rows;
    my $row = sub {
        my ($label, $id, $dir, $target, $max) = @_;
        my $r = ratio("$name $id", "$name json-$dir");
        my $v = defined $max ? verdict($r, $max) : '';
        push @misses, "$name $label" if $v eq 'MISS';
        push @rows, [$label, ns(med($name, $id)), spread($name, $id), x($r), $target // '', $v];
    };
    for my $dir (qw(encode decode)) {
        my ($label, $id, $targets, @parts) = @{ $CLASS_ROWS{$dir} };
        $row->($label, $id, $dir, sprintf('<= %.2f', $targets->{$name}), $targets->{$name});
        $row->(@$_, $dir) for @parts;
        my $sereal = ratio("$name sereal-$dir", "$name json-$dir");
        $row->("codec ${dir}_event", "codec-$dir", $dir,
               defined $sereal ? sprintf('<= %.2f (Sereal)', $sereal) : '', $sereal);
        $row->("JSON::XS $dir", "json-$dir", $dir);
        $row->("Sereal $dir", "sereal-$dir", $dir) if $senc;
        $row->("CBOR::XS $dir", "cbor-$dir", $dir) if $cbor;
        $row->("pure-Perl peer $dir", "peer-$dir", $dir) if $peer;
        if ($limit_bin) { $row->(@$_, $dir) for @{ $LIMIT_ROWS{$dir} } }
    }
    table(sprintf('%s: %d fields, %d bytes on the wire, %d as JSON', $name, scalar(keys %{ $shape->[1] }),
                  length $bytes, length $json->encode($shape->[1])),
          ['path', 'ns', 'spread', 'x JSON', 'target', ''], @rows);
}

if ($peer) {
    my @rows;
    for my $shape (@SHAPES) {
        my $name = $shape->[0];
        for ([class => 'class-encode', 'peer-encode'], [class => 'class-decode', 'peer-decode'],
             [codec => 'codec-encode', 'peer-encode'], [codec => 'codec-decode', 'peer-decode']) {
            my ($route, $id, $their) = @$_;
            my $speedup = ratio("$name $their", "$name $id");
            my $v = defined $speedup ? ($speedup >= $PEER_TARGET ? 'ok' : 'MISS') : '-';
            push @misses, "$name $id against the pure-Perl peer" if $v eq 'MISS';
            push @rows, ["$name $id", ns(med($name, $their)), ns(med($name, $id)),
                         defined $speedup ? sprintf('%.1f', $speedup) : '-', ">= $PEER_TARGET", $v];
        }
    }
    table('against the pure-Perl protocol-buffer library (Google::ProtocolBuffers): times faster',
          ['path', 'peer ns', 'ours ns', 'faster', 'target', ''], @rows);
}
else {
    say_("the pure-Perl peer: $MISSING{peer}\n");
}

{
    my %net;
    my $loop = $times{'typical loop'};
    for my $id (qw(string-getter empty-xsub-method empty-perl-method)) {
        my $t = $times{"typical $id"} || [];    # [] when --only left the case out
        $net{$id} = [map { $t->[$_] - $loop->[$_] } 0 .. $#$t];
    }
    my $per_round = sub { my ($num, $den) = @_; median(map { $net{$num}[$_] / $net{$den}[$_] } 0 .. $#{ $net{$num} }) };
    my $vs_xsub = $per_round->('string-getter', 'empty-xsub-method');
    my $vs_perl = $per_round->('string-getter', 'empty-perl-method');
    my $v = verdict($vs_xsub, 2.5);
    push @misses, 'string getter against an empty XSUB method' if $v eq 'MISS';
    table(sprintf('a string getter ($r->bot_name) beside empty method calls; the loop and assignment (%s ns) taken off',
                  ns(med('typical', 'loop'))),
          ['call', 'ns', 'getter / this', 'target', ''],
          ['$r->bot_name', ns(median(@{ $net{'string-getter'} })), '', '', ''],
          ['empty XSUB method', ns(median(@{ $net{'empty-xsub-method'} })), x($vs_xsub), '<= 2.5', $v],
          ['empty Perl method', ns(median(@{ $net{'empty-perl-method'} })), x($vs_perl), '', '']);
}

{
    my @cols = (['class encode', 'class-encode'], ['class decode', 'class-decode'],
                ['codec encode', 'codec-encode'], ['codec decode', 'codec-decode'],
                ['JSON::XS encode', 'json-encode'], ['JSON::XS decode', 'json-decode'],
                $limit_bin ? (['C++ serialize', 'limit-serialize'], ['C++ parse', 'limit-parse']) : ());
    my (@per_record, @per_byte);
    for my $size (@SWEEP) {
        my ($name, undef, $label, $bytes) = @$size;
        push @per_record, [$label, map { ns(med($name, $_->[1])) } @cols];
        push @per_byte, [$label, map { my $m = med($name, $_->[1]); defined $m ? sprintf('%.3f', $m / $bytes) : '-' } @cols];
    }
    # Linear: the cost per byte of a 1 MB record at most half as much again
    # as that of a 100 KB record (the fixed cost per record is long amortised
    # by then, so anything growing faster than the size shows here).
    my @linear = ('1 MB / 100 KB per byte');
    for my $col (@cols) {
        my ($big, $less) = ($SWEEP[-1], $SWEEP[-2]);
        my $r = ratio("$big->[0] $col->[1]", "$less->[0] $col->[1]");
        $r = $r * $less->[3] / $big->[3] if defined $r;
        my $v = verdict($r, 1.5);
        push @misses, "$col->[0] grows faster than the record" if $v eq 'MISS' && $col->[1] !~ /^(?:json|limit)-/;
        push @linear, defined $r ? sprintf('%.2f %s', $r, $v) : '-';
    }
    my $head = ['record', map { $_->[0] } @cols];
    table('cost per record over record sizes (the small record with a growing http_request): ns per record',
          $head, @per_record);
    table('the same, ns per byte; last row: per-byte cost at 1 MB over that at 100 KB (target <= 1.5)',
          $head, @per_byte, \@linear);
}

if ($limit_why) {
    say_("the C++ limit: $limit_why\n");
}
elsif (my @differ = grep { !$limit_same{$_} } sort keys %limit_same) {
    say_("note: the C++ runtime serialises @differ to other bytes than the codec\n");
}
say_(@misses ? 'MISS: ' . join('; ', @misses) : 'every target met');

if ($opt{readme}) {
    my $readme = "$FindBin::Bin/README.md";
    open my $fh, '<', $readme or die "cannot read $readme: $!\n";
    my $text = do { local $/; <$fh> };
    close $fh;
    $text =~ s/(<!-- speed\.pl results begin -->\n).*?(<!-- speed\.pl results end -->)/$1\n$out\n$2/s
        or die "$readme has no '<!-- speed.pl results begin -->' ... '<!-- speed.pl results end -->' section\n";
    open $fh, '>', $readme or die "cannot write $readme: $!\n";
    print $fh $text;
    close $fh or die "cannot write $readme: $!\n";
    print "bench/README.md updated\n";
}
print $out;
