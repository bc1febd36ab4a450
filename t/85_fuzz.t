#!/usr/bin/perl
# A short run of each fuzzer of xt/ with fixed seeds: every input and every
# call must end consistently (exit status 0, no problem in the summary), the
# summary must count exactly what was asked for, a seed must give the same
# inputs again, and standard error may hold nothing but the runtime's
# complaints about strings that are not UTF-8.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use File::Temp ();
use QelTest qw(sh_quote describe_status slurp);

my $ROOT = "$FindBin::Bin/..";
my @PERL = ($^X, "-I$ROOT/blib/lib", "-I$ROOT/blib/arch");
my $TMP = File::Temp::tempdir('qel-fuzz-XXXXXX', TMPDIR => 1, CLEANUP => 1);
my $UTF8_LINE = qr/^\[libprotobuf ERROR [^\]]+\] String field '[\w.]+' contains invalid UTF-8 data when (?:parsing|serializing) a protocol buffer\. Use the 'bytes' type if you intend to send raw bytes\. ?$/;

# fuzz($script, @options): runs xt/$script and returns its wait status, its
# standard output, and the lines of its standard error that are not the
# runtime's UTF-8 complaints.
sub fuzz {
    my ($script, @options) = @_;
    my ($out, $err) = ("$TMP/out", "$TMP/err");
    system join ' ', (map { sh_quote($_) } @PERL, "$ROOT/xt/$script", '--quiet', @options),
        '>' . sh_quote($out), '2>' . sh_quote($err);
    my $status = $?;
    my @other = grep { !/$UTF8_LINE/ } split /\n/, slurp($err);
    return ($status, slurp($out), @other);
}

# run_ok($name, $script, \@options, $summary_re): one run that must exit 0
# with nothing unexpected on standard error and end in a summary line that
# matches $summary_re; returns the summary's captures.
sub run_ok {
    my ($name, $script, $options, $summary_re) = @_;
    local $Test::Builder::Level = $Test::Builder::Level + 1;
    my ($status, $out, @stderr) = fuzz($script, @$options);
    my @lines = split /\n/, $out;
    my @caught = @lines ? $lines[-1] =~ $summary_re : ();
    is_deeply \@stderr, [], "$name: standard error holds only the runtime's UTF-8 complaints"
        or diag join "\n", @stderr[0 .. ($#stderr < 20 ? $#stderr : 20)];
    is $status, 0, "$name: exit status 0" or diag describe_status($status);
    ok scalar(@caught), "$name: the summary line counts what was asked for"
        or diag "last line: " . (@lines ? $lines[-1] : '(no output)');
    diag "output:\n$out" if @lines > 1;    # problems or unexpected text
    return @caught;
}

my $WIRE = qr/^fuzz_wire: seed (\d+), inputs (\d+), parsed (\d+), rejected (\d+), longest (\d+) bytes, codec decoded (\d+), codec refused (\d+), codec refused by the codec only (\d+), problems 0, elapsed [0-9.]+ s, \(\d+ inputs\/s\)$/;
my $WIRE_NO_CODEC = qr/^fuzz_wire: seed (\d+), inputs (\d+), parsed (\d+), rejected (\d+), longest (\d+) bytes, problems 0, elapsed [0-9.]+ s, \(\d+ inputs\/s\)$/;
my $CALLS = qr/^fuzz_calls: seed (\d+), calls (\d+), exceptions (\d+), distinct texts (\d+), invariant checks (\d+), warnings (\d+), codec calls (\d+), codec exceptions (\d+), problems 0, elapsed [0-9.]+ s, \(\d+ calls\/s\)$/;

# The wire fuzzer: 1200 inputs, then the same inputs in two halves.
my ($seed, $inputs, $parsed, $rejected, $longest, $decoded, $refused, $codec_only) =
    run_ok('fuzz_wire --seed 11 --count 1200', 'fuzz_wire.pl', [qw(--seed 11 --count 1200)], $WIRE);
is $seed, 11, 'fuzz_wire: the summary names the seed';
is $inputs, 1200, 'fuzz_wire: inputs 1200';
is $parsed + $rejected, 1200, 'fuzz_wire: every input was parsed or rejected';
ok $parsed > 0 && $rejected > 0, "fuzz_wire: some inputs parse ($parsed) and some do not ($rejected)";
# The codec refuses what the record class refuses, and of what the class
# reads, what holds field number 0, over-long tags or lengths of 2**32 and more.
is $decoded + $refused + $codec_only, 1200, 'fuzz_wire: every input was decoded or refused by the codec';
is $refused, $rejected, 'fuzz_wire: the codec refuses every input the record class refuses';
is $decoded + $codec_only, $parsed, 'fuzz_wire: the inputs the class reads are decoded or documented refusals';
ok $decoded > 0 && $codec_only > 0,
    "fuzz_wire: the codec decodes inputs ($decoded) and refuses some that the class reads ($codec_only)";

my (undef, $in1, $parsed1, $rejected1, $longest1, @codec1) =
    run_ok('fuzz_wire --seed 11 --count 600', 'fuzz_wire.pl', [qw(--seed 11 --count 600)], $WIRE);
my (undef, $in2, $parsed2, $rejected2, $longest2, @codec2) =
    run_ok('fuzz_wire --seed 11 --first 600 --count 600', 'fuzz_wire.pl', [qw(--seed 11 --first 600 --count 600)], $WIRE);
is_deeply [$in1 + $in2, $parsed1 + $parsed2, $rejected1 + $rejected2, ($longest1 > $longest2 ? $longest1 : $longest2),
           map { $codec1[$_] + $codec2[$_] } 0 .. 2],
    [$inputs, $parsed, $rejected, $longest, $decoded, $refused, $codec_only],
    'fuzz_wire: the seed gives the same inputs when split at input 600';

# The fast mode checks the same inputs with the codec; --no-codec leaves it out.
my (undef, @fast) = run_ok('fuzz_wire --seed 11 --count 600 --codec-only', 'fuzz_wire.pl',
    [qw(--seed 11 --count 600 --codec-only)], $WIRE);
is_deeply \@fast, [$in1, $parsed1, $rejected1, $longest1, @codec1],
    'fuzz_wire --codec-only: the same counts as the full checks of the same inputs';
my (undef, @plain) = run_ok('fuzz_wire --seed 11 --count 600 --no-codec', 'fuzz_wire.pl',
    [qw(--seed 11 --count 600 --no-codec)], $WIRE_NO_CODEC);
is_deeply \@plain, [$in1, $parsed1, $rejected1, $longest1], 'fuzz_wire --no-codec: the same inputs, no codec counts';

# The call fuzzer: 10000 calls, twice with the same seed. Flags are given
# no floating-point 1.0 and 0.0, which the codec accepts although the
# documented flags are only integers, strings and booleans.
my @OPTS = qw(--seed 12 --count 10000);
my @calls = run_ok('fuzz_calls --seed 12 --count 10000', 'fuzz_calls.pl', \@OPTS, $CALLS);
is $calls[0], 12, 'fuzz_calls: the summary names the seed';
is $calls[1], 10000, 'fuzz_calls: calls 10000';
ok $calls[2] > 0 && $calls[2] < 10000, "fuzz_calls: some calls raise exceptions ($calls[2])";
ok $calls[4] > 0, "fuzz_calls: invariants were checked ($calls[4] times)";
ok $calls[6] > 1000 && $calls[6] < 10000, "fuzz_calls: about one call in four is a codec call ($calls[6])";
ok $calls[7] > 0 && $calls[7] < $calls[6], "fuzz_calls: some codec calls raise exceptions ($calls[7]), not all";
ok $calls[7] <= $calls[2], 'fuzz_calls: the codec exceptions are among all exceptions';
my @again = run_ok('fuzz_calls --seed 12 --count 10000, again', 'fuzz_calls.pl', \@OPTS, $CALLS);
is_deeply \@again, \@calls, 'fuzz_calls: the seed gives the same calls again';

# Only codec calls; and none.
my @codec = run_ok('fuzz_calls --seed 13 --count 3000 --codec-only', 'fuzz_calls.pl',
    [qw(--seed 13 --count 3000 --codec-only)], $CALLS);
is_deeply [@codec[1, 4, 6]], [3000, 0, 3000], 'fuzz_calls --codec-only: 3000 calls, all of the codec, no pool';
ok $codec[7] > 0 && $codec[7] < 3000, "fuzz_calls --codec-only: some calls raise exceptions ($codec[7]), not all";
my $CALLS_NO_CODEC = qr/^fuzz_calls: seed (\d+), calls (\d+), exceptions (\d+), distinct texts (\d+), invariant checks (\d+), warnings (\d+), problems 0, elapsed [0-9.]+ s, \(\d+ calls\/s\)$/;
my @no_codec = run_ok('fuzz_calls --seed 12 --count 2000 --no-codec', 'fuzz_calls.pl', [qw(--seed 12 --count 2000 --no-codec)],
    $CALLS_NO_CODEC);
is $no_codec[1], 2000, 'fuzz_calls --no-codec: 2000 calls, no codec counts';

done_testing;
