# Streams on hostile input and in odd hands: random and mutated bytes (plain
# and gzip) never crash the reader and every read ends; nothing leaks on any
# path; a thread gets nothing it could use in place of a reader or writer.
use strict;
use warnings;
use Config;
use Test::More;
use lib 't/lib';
use QelTest qw(varint framed);

use quillon_event_log::Stream;
use quillon_event_log::Codec qw(encode_event);

quillon_event_log::RuntimeLog::mode('silent');
srand 7;

sub gzipped {
    my (@records) = @_;
    open my $fh, '>', \my $z or die;
    my $w = quillon_event_log::Stream->writer($fh, gzip => 1);
    $w->write_bytes($_) for @records;
    $w->close;
    return $z;
}

my @records = map {
    encode_event({ bot_name => "bot$_", http_request => 'x' x (17 * $_), anomalies => [1 .. $_ % 4],
                   client_ip => { ip3 => $_ }, request_time => 1763596800 + $_ })
} 1 .. 60;
my $plain = framed(@records);
my $gz = gzipped(@records);

subtest 'mutated and random streams: every read ends, with a count of records and problems' => sub {
    my ($runs, $records, $problems) = (0, 0, 0);
    for my $i (1 .. 1500) {
        my $s = $i % 3 == 0 ? $gz : $plain;
        my $kind = $i % 5;
        if ($kind == 0) { $s = join '', map { chr rand 256 } 1 .. rand 300 }
        elsif ($kind == 1) { substr($s, rand length $s, 1 + rand 4) = chr rand 256 }
        elsif ($kind == 2) { $s = substr($s, 0, rand length $s) }
        elsif ($kind == 3) { substr($s, rand length $s, 0) = join '', map { chr rand 256 } 1 .. 1 + rand 8 }
        else { $s = substr($s, 0, 2) . reverse substr($s, 2) }
        my $method = (qw(next next_record next_bytes))[$i % 3];
        my $r = quillon_event_log::Stream->reader(\$s, on_error => sub { $problems++ }, max_record => 100_000);
        my $n = 0;
        $n++ while defined $r->$method and $n < 10_000;
        $records += $n;
        $runs++;
    }
    is $runs, 1500, 'all 1500 streams read to their end';
    cmp_ok $records, '>', 1000, "$records records delivered";
    cmp_ok $problems, '>', 500, "$problems problems reported";
};

SKIP: {
    skip 'Test::LeakTrace not installed', 1 unless eval { require Test::LeakTrace; 1 };
    subtest 'no leaks' => sub {
        my $bad = framed($records[0], "\x0f\x0f", $records[1]) . "\x09\x0a";
        for my $case (
            ['read a plain stream', sub { my $r = quillon_event_log::Stream->reader(\$plain); 1 while $r->next }],
            ['read a gzip stream as objects', sub { my $r = quillon_event_log::Stream->reader(\$gz); 1 while $r->next_record }],
            ['problems to on_error', sub {
                my $r = quillon_event_log::Stream->reader(\$bad, on_error => sub { my $m = $_[0]{message} });
                1 while $r->next }],
            ['problems as exceptions', sub {
                my $r = quillon_event_log::Stream->reader(\$bad);
                for (1 .. 4) { eval { $r->next } } }],
            ['a callback that dies', sub {
                my $r = quillon_event_log::Stream->reader(\$bad, on_error => sub { die "x\n" });
                for (1 .. 4) { eval { $r->next } } }],
            ['write and close, plain and gzip', sub {
                for my $gzip (0, 1) {
                    open my $fh, '>', \my $buf or die;
                    my $w = quillon_event_log::Stream->writer($fh, gzip => $gzip);
                    $w->write_event({ bot_name => 'a' });
                    $w->write_record(quillon_event_log::QuillonEventLog->new({ host => 'h' }));
                    $w->write_bytes('abc');
                    eval { $w->write_event({ bot_nmae => 1 }) };
                    $w->close;
                } }],
            ['a writer dropped without close', sub {
                open my $fh, '>', \my $buf or die;
                my $w = quillon_event_log::Stream->writer($fh, gzip => 1);
                $w->write_event({ bot_name => 'a' }) }],
            ['option errors', sub { eval { quillon_event_log::Stream->reader(\$plain, colour => 1) } }],
        ) {
            my ($name, $code) = @$case;
            $code->();    # warm up: lazily built tables, stashes
            Test::LeakTrace::no_leaks_ok(\&$code, $name);
        }
    };
}

SKIP: {
    skip 'perl without threads', 1 unless $Config{useithreads};
    require threads;
    subtest 'threads' => sub {
        my $r = quillon_event_log::Stream->reader(\$plain);
        $r->next;
        open my $fh, '>', \my $buf or die;
        my $w = quillon_event_log::Stream->writer($fh);
        my $seen = threads->create(sub {
            join ',', map { ref($_) . ':' . (defined $$_ ? 'defined' : 'undef') } $r, $w })->join;
        is $seen, 'SCALAR:undef,SCALAR:undef', 'a new thread gets references to unblessed undef';
        is $r->next->{bot_name}, 'bot2', 'the reader reads on in its own thread';
        my $in_thread = threads->create(sub {
            my $r2 = quillon_event_log::Stream->reader(\$plain);
            my $n = 0;
            $n++ while $r2->next;
            $n })->join;
        is $in_thread, 60, 'a thread reads its own stream';
    };
}

done_testing;
