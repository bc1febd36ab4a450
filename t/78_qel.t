# The qel command: decode (text and JSON Lines), encode, filter, bad input,
# exit statuses and usage errors, run as a separate process.
use strict;
use warnings;
use Test::More;
use lib 't/lib';
use QelTest qw(varint framed run_program sh_words slurp spew);
use File::Temp qw(tempdir);
use JSON::XS ();

use quillon_event_log::Codec qw(encode_event decode_event);
use quillon_event_log::Stream;

quillon_event_log::RuntimeLog::mode('silent');    # the odd records hold bytes that are not UTF-8

my $dir = tempdir(CLEANUP => 1);
my @qel = ($^X, '-Mblib', 'blib/script/qel');

# Runs qel with the given standard input: (stdout, stderr, exit status).
sub qel {
    my ($stdin, @args) = @_;
    spew("$dir/stdin", $stdin // '');
    my ($out, $status, $err) = run_program([@qel, @args], dir => $dir, stdin => "$dir/stdin");
    return ($out, $err, $status >> 8);
}

my $ip = sub { +{ ip0 => 0, ip1 => 0, ip2 => 0, ip3 => $_[0], rtdom_id => 0 } };
my @events = (
    { bot_name => 'curl', client_ip => $ip->(0xCB00712D), request_time => 1763596800, is_https_request => 1,
      device_id => '18446744073709551615', anomalies => ['Known bot User-Agent', 'Missing Accept header'],
      classification => 'Malicious', request_uri => '/login?next=%2F', country_code => 'NL' },
    { bot_name => 'Googlebot', client_ip => $ip->(0x42F94001), request_time => 1763600400, is_https_request => 0,
      classification => 'Trusted Bot', country_code => 'US', src_port => 51734 },
    { classification => 'Browser', request_time => 1763604000, host => "caf\xc3\xa9.example" },
);
my @bytes = map { encode_event($_) } @events;
my $stream = framed(@bytes);
spew("$dir/three.qel", $stream);

subtest 'help, version and usage errors' => sub {
    my ($out, $err, $st) = qel(undef, '--help');
    is $st, 0, '--help exits 0';
    like $out, qr/\Ausage:\n  qel decode \[--json\] \[--fields LIST\] \[--strict\] \[--quiet\] \[FILE\|-\]\.\.\.\n/, '--help text';
    ($out, $err, $st) = qel(undef, '--version');
    is $out, "qel 1.0 (quillon_event_log 1.0)\n", '--version';
    ($out, $err, $st) = qel(undef);
    is $st, 2, 'no command: 2';
    like $err, qr/\Aqel: no command given\nusage:\n/, 'no command: message';
    ($out, $err, $st) = qel(undef, 'decrypt');
    is $err =~ s/\n.*//sr, 'qel: unknown command "decrypt"', 'unknown command';
    ($out, $err, $st) = qel(undef, 'decode', '--colour');
    is $st, 2, 'unknown option: 2';
    is $err, "qel: unknown option: colour\nusage: qel decode [--json] [--fields LIST] [--strict] [--quiet] [FILE|-]...\n",
        'unknown option: message and the command\'s usage';
    ($out, $err, $st) = qel(undef, 'decode', '--fields', 'bot_nmae', "$dir/three.qel");
    is $err =~ s/\n.*//sr, 'qel: --fields: unknown field "bot_nmae" (did you mean "bot_name"?)', 'a misspelt field';
    is $st, 2, 'is a usage error';
    ($out, $err, $st) = qel(undef, 'filter', '--match', 'host=(', "$dir/three.qel");
    is $err =~ s/\n.*//sr, 'qel: --match: invalid regular expression "("', 'a bad regular expression';
    ($out, $err, $st) = qel(undef, 'filter', '--since', 'yesterday', "$dir/three.qel");
    is $err =~ s/\n.*//sr, 'qel: --since: "yesterday" is neither unix seconds nor an ISO 8601 time', 'a bad time';
    ($out, $err, $st) = qel(undef, 'report', '--top', '0');
    is $err =~ s/\n.*//sr, 'qel: --top: expected a positive whole number, got "0"', 'a bad --top';
    ($out, $err, $st) = qel(undef, 'decode', '--help');
    is_deeply [$out, $st], ["usage: qel decode [--json] [--fields LIST] [--strict] [--quiet] [FILE|-]...\n", 0],
        'a command\'s --help';
};

subtest 'decode: text form' => sub {
    my ($out, $err, $st) = qel(undef, 'decode', "$dir/three.qel");
    my $want = '';
    my $offset = 0;
    for my $i (0 .. 2) {
        $want .= sprintf "# %s: record %d at byte %d, %d bytes\n", "$dir/three.qel", $i + 1, $offset, length $bytes[$i];
        $want .= quillon_event_log::QuillonEventLog->new($bytes[$i])->debug_string;
        $offset += 1 + length $bytes[$i];
    }
    is $out, $want, 'header lines and debug strings';
    like $out, qr/\A# \Q$dir\E\/three\.qel: record 1 at byte 0, \d+ bytes\nbot_name: "curl"\n/, 'the first lines';
    is_deeply [$err, $st], ['', 0], 'clean';
    ($out) = qel($stream, 'decode', '--fields', 'request_time,bot_name');
    my ($l0, $l1, $l2) = map { length } @bytes;
    is $out, "# -: record 1 at byte 0, $l0 bytes\nbot_name: \"curl\"\nrequest_time: 1763596800\n"
           . "# -: record 2 at byte @{[1 + $l0]}, $l1 bytes\nbot_name: \"Googlebot\"\nrequest_time: 1763600400\n"
           . "# -: record 3 at byte @{[2 + $l0 + $l1]}, $l2 bytes\nrequest_time: 1763604000\n",
        '--fields, standard input';
};

subtest 'decode --json' => sub {
    my ($out, $err, $st) = qel(undef, 'decode', '--json', "$dir/three.qel");
    my @lines = split /\n/, $out;
    is scalar @lines, 3, 'one line per record';
    is $lines[0], '{"anomalies":["Known bot User-Agent","Missing Accept header"],"bot_name":"curl",'
        . '"classification":"Malicious","client_ip":"203.0.113.45","country_code":"NL",'
        . '"device_id":"18446744073709551615","is_https_request":true,"request_time":1763596800,'
        . '"request_uri":"/login?next=%2F"}', 'first line: text address, uint64 string, true';
    like $lines[1], qr/"is_https_request":false/, 'false';
    is $lines[2], qq({"classification":"Browser","host":"caf\xc3\xa9.example","request_time":1763604000}), 'UTF-8 text';
    ($out) = qel(undef, 'decode', '--json', '--fields', 'bot_name', "$dir/three.qel");
    is $out, qq({"bot_name":"curl"}\n{"bot_name":"Googlebot"}\n{}\n), '--fields';
};

# Records the runtime accepts in every shape the hash form has to carry.
my @odd = (
    encode_event({ bot_name => "a\xff\xfe", http_request => "POST / HTTP/1.1\r\n\r\n\x00\x01\xc3\x28\xf0\x9f" }),
    "\x0a\x01b\x0a\x01c",                     # a value given twice: the last wins
    "\xd0\x01\x05\x0a\x01a",                  # fields out of order
    "\x98\x06\x01\x0a\x01z",                  # an unknown varint field
    "\x0a\x01a\xfa\x3f\x00",                  # an unknown length-delimited field
    "\x08\x96\x01",                           # a known number with another wire type
    "\x22\x02\x08\x01\x22\x02\x10\x02",       # an address in two parts
    '',                                       # an empty record
    encode_event({ client_ip => { ip3 => 1 } }),        # a partial address stays a hash
    encode_event({ client_ip => $ip->(0x7F000001), dest_ip => { ip0 => 0x20010DB8, ip1 => 0, ip2 => 0, ip3 => 1, rtdom_id => 3 } }),
    @bytes,
);
my $odd_stream = framed(@odd);

subtest 'decode --json | encode: the same bytes' => sub {
    my ($json, $err, $st) = qel($odd_stream, 'decode', '--json');
    is_deeply [$err, $st], ['', 0], 'decoded cleanly';
    my @lines = split /\n/, $json;
    is $lines[1], '{"_wire":"0a01620a0163","bot_name":"c"}', 'non-canonical bytes kept under _wire';
    is $lines[3], '{"_unknown":["0:980601"],"bot_name":"z"}', 'unknown fields under _unknown';
    is $lines[7], '{}', 'the empty record';
    is $lines[8], '{"client_ip":{"ip3":1}}', 'a partial address';
    is $lines[9], '{"client_ip":"127.0.0.1","dest_ip":"2001:db8::1%3"}', 'text addresses';
    my ($again, $err2, $st2) = qel($json, 'encode');
    is unpack('H*', $again), unpack('H*', $odd_stream), 'byte for byte';
    is_deeply [$err2, $st2], ['', 0], 'encoded cleanly';

    # An edited line is written from its fields.
    my $edited = $lines[1] =~ s/"bot_name":"c"/"bot_name":"d"/r;
    ($again) = qel("$edited\n", 'encode');
    is unpack('H*', $again), '030a0164', 'a stale _wire gives way to the fields';
};

subtest 'encode: --single and bad lines' => sub {
    my ($out, $err, $st) = qel(qq({"bot_name":"curl","is_https_request":true}\n), 'encode', '--single');
    is unpack('H*', $out), unpack('H*', encode_event({ bot_name => 'curl', is_https_request => 1 })), 'one bare record';
    ($out, $err, $st) = qel(qq({}\n{}\n), 'encode', '--single');
    is $err, "qel: --single needs exactly one record, the input holds 2\n", 'two records for --single';
    is $st, 1, 'status 1';
    spew("$dir/bad.jsonl", qq({"bot_name":"a"}\n{"bot_nmae":"b"}\nnot json\n{"src_port":"x"}\n\n{"bot_name":"e"}\n));
    ($out, $err, $st) = qel(undef, 'encode', "$dir/bad.jsonl");
    is $out, framed(encode_event({ bot_name => 'a' }), encode_event({ bot_name => 'e' })), 'the good lines';
    my @err = split /\n/, $err;
    is $err[0], "$dir/bad.jsonl: line 2: unknown field \"bot_nmae\" (did you mean \"bot_name\"?)", 'codec error';
    is $err[1], qq{$dir/bad.jsonl: line 3: 'null' expected, at character offset 0 (before "not json")}, 'JSON error';
    is $err[2], "$dir/bad.jsonl: line 4: src_port: \"x\" is not a decimal integer", 'value error';
    is scalar @err, 3, 'three reports';
    is $st, 1, 'status 1';
};

subtest 'filter' => sub {
    my @cases = (
        [['--where', 'bot_name=curl'], [0]],
        [['--where', 'classification=Trusted Bot'], [1]],
        [['--where', 'src_port=051734'], [1]],
        [['--where', 'is_https_request=false'], [1]],
        [['--where', 'is_https_request=true'], [0]],
        [['--where', 'client_ip=203.0.113.45'], [0]],
        [['--where', 'anomalies=Missing Accept header'], [0]],
        [['--where', "host=caf\xc3\xa9.example"], [2]],
        [['--match', 'anomalies=^Known'], [0]],
        [['--match', 'bot_name=(?i)bot'], [1]],
        [['--match', 'classification=.', '--where', 'country_code=US'], [1]],
        [['--match', 'classification=.', '--where', 'country_code=NL', '--where', 'bot_name=x'], []],
        [['--since', '1763600400'], [1, 2]],
        [['--until', '2025-11-20T01:00:00Z'], [0]],
        [['--since', '2025-11-20T01:00:00+00:00', '--until', '2025-11-20T02:00:00Z'], [1]],
        [['--since', '2025-11-20T02:00:00+01:00'], [1, 2]],
        [['--since', '2025-11-20'], [0, 1, 2]],
    );
    for (@cases) {
        my ($args, $want) = @$_;
        my ($out, $err, $st) = qel(undef, 'filter', @$args, "$dir/three.qel");
        is unpack('H*', $out), unpack('H*', framed(@bytes[@$want])), "@$args";
        is_deeply [$err, $st], ['', 0], "@$args: clean";
    }
    my ($out) = qel($odd_stream, 'filter', '--where', 'bot_name=c');
    is unpack('H*', $out), unpack('H*', framed("\x0a\x01b\x0a\x01c")), 'records are copied byte for byte';
};

subtest 'bad input: reported, skipped, exit 1; --strict stops' => sub {
    my $bad = framed($bytes[0], "\x0f\x0f", $bytes[1]);
    spew("$dir/bad.qel", $bad);
    spew("$dir/trunc.qel", framed($bytes[0]) . "\x40\x0a");
    my ($out, $err, $st) = qel(undef, 'decode', '--json', '--fields', 'bot_name',
                               "$dir/bad.qel", "$dir/trunc.qel", "$dir/missing.qel", "$dir/three.qel");
    my $o2 = 1 + length $bytes[0];
    is $err, "$dir/bad.qel: record 2 at byte $o2: wire type 7 at byte 0 of the record\n"
           . "$dir/trunc.qel: record 2 at byte $o2: truncated record: the prefix announces 64 bytes, 1 follow\n"
           . "qel: cannot open $dir/missing.qel: No such file or directory\n", 'the reports';
    is $out, qq({"bot_name":"curl"}\n{"bot_name":"Googlebot"}\n{"bot_name":"curl"}\n)
           . qq({"bot_name":"curl"}\n{"bot_name":"Googlebot"}\n{}\n), 'every good record';
    is $st, 1, 'status 1';
    ($out, $err, $st) = qel(undef, 'filter', '--strict', '--where', 'bot_name=Googlebot', "$dir/bad.qel", "$dir/three.qel");
    is $out, '', 'nothing after the first problem';
    is $err, "$dir/bad.qel: record 2 at byte $o2: wire type 7 at byte 0 of the record\n", 'one report';
    is $st, 1, '--strict: status 1';
};

subtest 'gzip input and closed pipes' => sub {
    my $gz = "$dir/three.gz";
    my $w = quillon_event_log::Stream->writer($gz, gzip => 1);
    $w->write_bytes($_) for @bytes;
    $w->close;
    my ($out, $err, $st) = qel(undef, 'decode', '--json', '--fields', 'request_time', $gz);
    is $out, qq({"request_time":1763596800}\n{"request_time":1763600400}\n{"request_time":1763604000}\n), 'gzip';

    my $big = "$dir/big.qel";
    $w = quillon_event_log::Stream->writer($big);
    $w->write_event({ %{ $events[0] }, request_time => $_ }) for 1 .. 20000;
    $w->close;
    my $cmd = sh_words(@qel);
    my $first = `$cmd decode '$big' 2>'$dir/pipe.err' | head -n 1`;
    like $first, qr/\A# \Q$big\E: record 1 at byte 0, \d+ bytes\n\z/, 'head got its line';
    is slurp("$dir/pipe.err"), '', 'and qel ended quietly';
};

done_testing;
