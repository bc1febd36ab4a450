#!/usr/bin/perl
# Throughput and memory of the qel command on typical records (the bundled
# sample generator's), each command pinned to one core: records per second,
# median of several runs, beside `jq -c .` over the same JSON Lines; peak
# resident memory over growing inputs, which must stay flat; qel report with
# one and two worker processes; and qel report's memory over inputs of up to
# ten million records with a new client address and path in every record,
# generated on the fly into a pipe (nothing stored).
#
#   perl -Mblib bench/qel.pl [--records N] [--runs R] [--memory 10000,100000,1000000]
#                            [--scale 10000,100000,1000000,10000000]
use strict;
use warnings;
use Getopt::Long;
use File::Temp qw(tempdir);
use Time::HiRes qw(time);
use POSIX ();
use FindBin;
use lib "$FindBin::Bin/lib";
use QelBench qw(median);

my ($records, $runs, $memory, $scale) = (200_000, 5, '10000,100000,1000000', '10000,100000,1000000,10000000');
GetOptions('records=i' => \$records, 'runs=i' => \$runs, 'memory=s' => \$memory, 'scale=s' => \$scale)
    or die "usage: $0 [--records N] [--runs R] [--memory N,N,...] [--scale N,N,...]\n";

my $dir = tempdir(CLEANUP => 1);
my @qel = ($^X, '-Mblib', 'blib/script/qel');
my @pin = grep { -x } '/usr/bin/taskset';
@pin = (@pin, '-c', '0') if @pin;
my ($time_cmd) = grep { -x } '/usr/bin/time';

sub sh_quote { join ' ', map { my $s = $_; $s =~ s/'/'\\''/g; "'$s'" } @_ }

# Runs a shell command line; returns (seconds, peak resident KB of its
# largest process, when /usr/bin/time is there).
sub measure {
    my ($cmd) = @_;
    my $rss_file = "$dir/rss";
    my $line = $time_cmd ? sh_quote($time_cmd, '-f', '%M', '-o', $rss_file) . " sh -c " . sh_quote($cmd) : $cmd;
    my $t = time;
    system($line) == 0 or die "failed: $cmd\n";
    my $elapsed = time - $t;
    my $kb;
    if ($time_cmd && open my $fh, '<', $rss_file) {
        ($kb) = grep { /^\d+$/ } map { s/\s+//gr } <$fh>;
    }
    return ($elapsed, $kb);
}


my $qel = sh_quote(@pin, @qel);
my $stream = "$dir/typical.qel";
my $jsonl = "$dir/typical.jsonl";
system("$qel sample --count $records --seed 1 > " . sh_quote($stream)) == 0 or die "sample failed\n";
system("$qel decode --json " . sh_quote($stream) . ' > ' . sh_quote($jsonl)) == 0 or die "decode failed\n";
my $size = -s $stream;

print "qel throughput: $records typical records (", sprintf('%.0f', $size / $records), " bytes each on average),",
    " one core, median of $runs runs\n";
print "machine: ", (POSIX::uname())[4], ', ', `nproc` =~ s/\s+//r, " cores, perl $^V\n\n";

my @cases = (
    ['qel decode --json', "$qel decode --json " . sh_quote($stream) . ' > /dev/null', 80_000],
    ['qel decode (text)', "$qel decode " . sh_quote($stream) . ' > /dev/null', undef],
    ['qel encode', "$qel encode " . sh_quote($jsonl) . ' > /dev/null', 60_000],
    ['qel filter --where', "$qel filter --where 'classification=Malicious Bot' " . sh_quote($stream) . ' > /dev/null', 150_000],
    ['qel filter --match --since', "$qel filter --match 'request_uri=login' --since 2025-11-20T01:00:00Z "
         . sh_quote($stream) . ' > /dev/null', 150_000],
    ['qel report', "$qel report " . sh_quote($stream) . ' > /dev/null', 150_000],
    ['qel report --json', "$qel report --json " . sh_quote($stream) . ' > /dev/null', 150_000],
);
if (grep { -x "$_/jq" } split /:/, $ENV{PATH}) {
    push @cases, ['jq -c . (same JSON Lines)', sh_quote(@pin, 'jq', '-c', '.') . ' < ' . sh_quote($jsonl) . ' > /dev/null', undef];
}

printf "%-28s %12s %10s %10s %12s\n", 'command', 'records/s', 'spread', 'target', 'peak RSS';
for my $case (@cases) {
    my ($name, $cmd, $target) = @$case;
    my (@rates, @kb);
    for (1 .. $runs) {
        my ($s, $kb) = measure($cmd);
        push @rates, $records / $s;
        push @kb, $kb if defined $kb;
    }
    my @sorted = sort { $a <=> $b } @rates;
    printf "%-28s %12.0f %10s %10s %12s\n", $name, median(@rates),
        sprintf('%.0f%%', 100 * ($sorted[-1] - $sorted[0]) / median(@rates)),
        $target ? ($target <= median(@rates) ? 'ok ' : 'MISS ') . $target : '-',
        @kb ? sprintf('%.1f MB', median(@kb) / 1024) : '-';
}

# qel report with one and two workers, not pinned: the machine's cores.
{
    print "\nqel report --jobs (all cores), $records records, median of $runs runs\n";
    my $plain = sh_quote(@qel);
    my %rate;
    for my $jobs (1, 2) {
        my @r = map { $records / (measure("$plain report --jobs $jobs " . sh_quote($stream) . ' > /dev/null'))[0] } 1 .. $runs;
        $rate{$jobs} = median(@r);
        printf "  --jobs %d: %9.0f records/s\n", $jobs, $rate{$jobs};
    }
    printf "  speed-up: %.2f\n", $rate{2} / $rate{1};
}

if ($scale) {
    print "\nqel report over records made on the fly (a new address and path in each, 30 days), peak RSS\n";
    my $gen = sh_quote($^X, '-Mblib', '-e', <<'GEN');
use quillon_event_log::Stream;
my $n = shift;
my $w = quillon_event_log::Stream->writer(\*STDOUT, addresses => 'text');
my @bots = map { "bot$_" } 1 .. 50;
my @actions = qw(none block alarm captcha);
my $span = 30 * 86400;
for my $i (0 .. $n - 1) {
    $w->write_event({
        client_ip    => join('.', 10 + ($i >> 24 & 0xff), $i >> 16 & 0xff, $i >> 8 & 0xff, $i & 0xff),
        request_uri  => "/item/$i?ref=x",
        bot_name     => $bots[$i % 50],
        classification => 'Untrusted Bot',
        actual_mitigation_action => $actions[$i % 4],
        request_time => 1763596800 + int($i * $span / $n),
    });
}
$w->close;
GEN
    printf "  %12s %12s %12s\n", 'records', 'seconds', 'peak RSS';
    for my $n (split /,/, $scale) {
        # The time of the whole pipe; the memory of qel report alone.
        my $rss_file = "$dir/scale.rss";
        my $report = $time_cmd ? sh_quote($time_cmd, '-f', '%M', '-o', $rss_file) . " $qel" : $qel;
        my $t = time;
        system("$gen $n | $report report --json > /dev/null") == 0 or die "failed: report of $n records\n";
        my $s = time - $t;
        my $kb;
        if ($time_cmd && open my $fh, '<', $rss_file) { ($kb) = grep { /^\d+$/ } map { s/\s+//gr } <$fh> }
        printf "  %12d %12.1f %12s\n", $n, $s, defined $kb ? sprintf('%.1f MB', $kb / 1024) : '-';
    }
}

exit 0 unless $memory;
my @sizes = split /,/, $memory;
print "\npeak resident memory (MB) by input size\n";
printf "%-22s" . (" %12s" x @sizes) . "\n", 'command', map { "$_ records" } @sizes;
my %rss;
for my $n (@sizes) {
    my $file = "$dir/mem.qel";
    system("$qel sample --count $n --seed 2 > " . sh_quote($file)) == 0 or die "sample failed\n";
    my $json = "$dir/mem.jsonl";
    system("$qel decode --json " . sh_quote($file) . ' > ' . sh_quote($json)) == 0 or die "decode failed\n";
    $rss{'qel decode --json'}{$n} = (measure("$qel decode --json " . sh_quote($file) . ' > /dev/null'))[1];
    $rss{'qel encode'}{$n} = (measure("$qel encode " . sh_quote($json) . ' > /dev/null'))[1];
    $rss{'qel filter'}{$n} = (measure("$qel filter --where country_code=DE " . sh_quote($file) . ' > /dev/null'))[1];
    $rss{'qel report'}{$n} = (measure("$qel report " . sh_quote($file) . ' > /dev/null'))[1];
    unlink $file, $json;
}
for my $name ('qel decode --json', 'qel encode', 'qel filter', 'qel report') {
    printf "%-22s" . (" %12s" x @sizes) . "\n", $name,
        map { defined $rss{$name}{$_} ? sprintf('%.1f', $rss{$name}{$_} / 1024) : '-' } @sizes;
}
