#!/usr/bin/perl
# The runtime log switch: quillon_event_log::RuntimeLog::mode and its three
# modes, the environment variable read at load, the warnings category, a
# dying __WARN__ handler, the silenced count, and each interpreter (thread)
# keeping its own mode and count.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use File::Temp ();
use QelTest qw($CLASS at_re slurp sh_quote);
use quillon_event_log::QuillonEventLog;

my $LOG = 'quillon_event_log::RuntimeLog';
my $mode = \&quillon_event_log::RuntimeLog::mode;
my $silenced = \&quillon_event_log::RuntimeLog::silenced;
my $reset = \&quillon_event_log::RuntimeLog::reset_silenced;

# A record whose bot_name is not UTF-8: one line when parsed, one when packed.
my $BAD = "\x0a\x02\xff\xfe";
sub utf8_text {
    my ($field, $when) = @_;
    return "String field 'quillon_event_log.QuillonEventLog.$field' contains invalid UTF-8 data "
         . "when $when a protocol buffer. Use the 'bytes' type if you intend to send raw bytes.";
}
my $RUNTIME_LINE = qr/^\[libprotobuf ERROR google\/protobuf\/wire_format_lite\.cc:\d+\] /;

# child($code, %env): runs $code in a new perl with the built module; returns
# exit status, standard output and standard error.
my $TMP = File::Temp::tempdir('qel-log-XXXXXX', TMPDIR => 1, CLEANUP => 1);
sub child {
    my ($code, %env) = @_;
    local @ENV{keys %env} = values %env;
    delete local $ENV{QUILLON_EVENT_LOG_RUNTIME_LOG} unless exists $env{QUILLON_EVENT_LOG_RUNTIME_LOG};
    my $cmd = join ' ', map { sh_quote($_) } $^X, (map { "-I$_" } grep { !ref } @INC),
        '-Mquillon_event_log::QuillonEventLog', '-e', $code;
    system "$cmd >" . sh_quote("$TMP/out") . ' 2>' . sh_quote("$TMP/err");
    return ($?, slurp("$TMP/out"), slurp("$TMP/err"));
}

# ---- the function ---------------------------------------------------------------

is $mode->(), 'stderr', 'the default mode is stderr';
is $mode->('warn'), 'stderr', 'mode(NEW) returns the mode before the call';
is $mode->(), 'warn', 'and the new mode holds';
is $mode->('silent'), 'warn', 'silent after warn';
is $mode->('stderr'), 'silent', 'stderr after silent';
is $@ = (eval { $mode->('loud'); 1 } ? '' : $@),
    'unknown runtime log mode "loud" (expected stderr, warn or silent) at ' . __FILE__ . ' line ' . (__LINE__ - 1) . ".\n",
    'an unknown mode croaks';
is $mode->(), 'stderr', 'a refused mode changes nothing';
like eval { $mode->('warn', 'silent'); 1 } ? '' : $@, at_re("Usage: ${LOG}::mode([mode])"), 'mode with two arguments: usage';
like eval { $silenced->(1); 1 } ? '' : $@, at_re("Usage: ${LOG}::silenced()"), 'silenced with an argument: usage';
like eval { $reset->(1); 1 } ? '' : $@, at_re("Usage: ${LOG}::reset_silenced()"), 'reset_silenced with an argument: usage';
ok exists $warnings::Offsets{$LOG}, 'the warnings category is registered';

# ---- stderr -------------------------------------------------------------------------

{
    my ($status, $out, $err) = child("my \$r = $CLASS->new(\"\\x0a\\x02\\xff\\xfe\"); my \$b = \$r->pack; print length \$b");
    is $status, 0, 'stderr mode: the program runs';
    is $out, 4, 'stderr mode: the record is read and packed';
    my @lines = split /\n/, $err;
    is scalar @lines, 2, 'stderr mode: two lines for one record read and packed';
    like $lines[0], qr/$RUNTIME_LINE\Q@{[utf8_text('bot_name', 'parsing')]}\E $/, 'stderr mode: the runtime\'s own line on parsing';
    like $lines[1], qr/$RUNTIME_LINE\Q@{[utf8_text('bot_name', 'serializing')]}\E $/, 'stderr mode: and on serializing';
}

# ---- warn ------------------------------------------------------------------------------

{
    $mode->('warn');
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, $_[0] };
    my $r = $CLASS->new($BAD); my $line = __LINE__;
    my $bytes = $r->pack; my $line2 = __LINE__;
    is_deeply \@warnings, [ utf8_text('bot_name', 'parsing') . " at " . __FILE__ . " line $line.\n",
                            utf8_text('bot_name', 'serializing') . " at " . __FILE__ . " line $line2.\n" ],
        'warn mode: one warning per line, naming the field, at the caller\'s line';
    is $bytes, $BAD, 'warn mode: the record is read and written as it stands';

    @warnings = ();
    is $r->unpack("\x0a\x01a\x8a\x02\x01\xc3"), 1, 'unpack of a record with a bad bot_signature_category';
    is_deeply \@warnings, [ utf8_text('bot_signature_category', 'parsing') . " at " . __FILE__ . " line " . (__LINE__ - 1) . ".\n" ],
        'warn mode: unpack warns with the field\'s name';

    @warnings = ();
    my $list = $CLASS->new({ anomalies => [ "ok", "\xff", "\xfe" ] });
    $bytes = $list->pack;
    is scalar @warnings, 2, 'warn mode: one warning per bad list element';
    like $warnings[0], qr/^\Q@{[utf8_text('anomalies', 'serializing')]}\E at /, 'warn mode: list elements are named by their field';

    @warnings = ();
    { no warnings; $r = $CLASS->new($BAD); $bytes = $r->pack; }
    is_deeply \@warnings, [], 'warn mode: no warnings silences them';
    { no warnings 'quillon_event_log::RuntimeLog'; $r = $CLASS->new($BAD); }
    is_deeply \@warnings, [], 'warn mode: no warnings of the category silences them';
    { no warnings; use warnings 'quillon_event_log::RuntimeLog'; $r = $CLASS->new($BAD); }
    is scalar @warnings, 1, 'warn mode: the category alone turns them on';
    @warnings = ();
    { no warnings; use warnings 'void'; $r = $CLASS->new($BAD); }
    is_deeply \@warnings, [], 'warn mode: other categories alone leave it off';
    {
        use warnings FATAL => 'quillon_event_log::RuntimeLog';
        my $err = eval { $r = $CLASS->new($BAD); 1 } ? '' : $@;
        is $err, utf8_text('bot_name', 'parsing') . " at " . __FILE__ . " line " . (__LINE__ - 1) . ".\n",
            'warn mode: FATAL warnings of the category die with the text';
    }
}

# A __WARN__ handler that dies unwinds only Perl frames: the C++ call is over
# by then, so the record holds everything that was read.
{
    $mode->('warn');
    my $r = $CLASS->new;
    my $calls = 0;
    my $err = do {
        local $SIG{__WARN__} = sub { $calls++; die "handler: $_[0]" };
        eval { $r->unpack("\x0a\x02\xff\xfe\x12\x01b"); 1 } ? '' : $@;
    };
    is $err, 'handler: ' . utf8_text('bot_name', 'parsing') . ' at ' . __FILE__ . ' line ' . (__LINE__ - 2) . ".\n",
        'a dying __WARN__ handler: its exception reaches the caller';
    is $calls, 1, 'a dying __WARN__ handler: called once';
    is $r->bot_name, "\xff\xfe", 'a dying __WARN__ handler: the record was read before it ran';
    is $r->profile_name, 'b', 'a dying __WARN__ handler: to the end';
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, $_[0] };
    my $other = $CLASS->new("\x12\x01c");
    is_deeply \@warnings, [], 'a dying __WARN__ handler: nothing stays queued for the next call';
    my $made = do {
        local $SIG{__WARN__} = sub { die "again\n" };
        eval { $CLASS->new($BAD) };
    };
    is $made, undef, 'a dying __WARN__ handler in new: no object comes back';
}

# ---- the codec reports through the same switch ---------------------------------------------

{
    require quillon_event_log::Codec;
    $mode->('warn');
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, $_[0] };
    my $h = quillon_event_log::Codec::decode_event($BAD); my $line = __LINE__;
    my $b = quillon_event_log::Codec::encode_event($h); my $line2 = __LINE__;
    is_deeply \@warnings, [ utf8_text('bot_name', 'parsing') . " at " . __FILE__ . " line $line.\n",
                            utf8_text('bot_name', 'serializing') . " at " . __FILE__ . " line $line2.\n" ],
        'codec: decode and encode warn in warn mode, naming the field';
    is $b, $BAD, 'codec: the bytes round-trip as they stand';
    @warnings = ();
    my $err = do {
        local $SIG{__WARN__} = sub { die "handler\n" };
        eval { quillon_event_log::Codec::decode_event($BAD); 1 } ? '' : $@;
    };
    is $err, "handler\n", 'codec: a dying __WARN__ handler reaches the caller';
    my $again = quillon_event_log::Codec::decode_event("\x0a\x01a");
    is_deeply [ $again, \@warnings ], [ { bot_name => 'a' }, [] ], 'codec: and leaves nothing queued';
    $mode->('silent');
    $reset->();
    $h = quillon_event_log::Codec::decode_event($BAD);
    $b = quillon_event_log::Codec::encode_event($h);
    is $silenced->(), 2, 'codec: silent mode counts its lines';
    is_deeply \@warnings, [], 'codec: silent mode raises nothing';
    eval { quillon_event_log::Codec::decode_event("\x0a\x05\xff") };
    is $silenced->(), 2, 'codec: a refused input reports nothing';
    $mode->('stderr');
}

# ---- silent --------------------------------------------------------------------------------

{
    $mode->('silent');
    $reset->();
    my @warnings;
    local $SIG{__WARN__} = sub { push @warnings, $_[0] };
    my $r = $CLASS->new($BAD);
    my $b = $r->pack for 1 .. 3;
    is $silenced->(), 4, 'silent mode: every line counted';
    is_deeply \@warnings, [], 'silent mode: no warnings';
    is $reset->(), 4, 'reset_silenced returns the count';
    is $silenced->(), 0, 'and sets it to 0';
    $mode->('stderr');
    is $silenced->(), 0, 'other modes count nothing';
}
{
    my ($status, $out, $err) = child(
        "quillon_event_log::RuntimeLog::mode('silent'); my \$r = $CLASS->new(\"\\x0a\\x02\\xff\\xfe\"); \$r->pack; print quillon_event_log::RuntimeLog::silenced()");
    is $status, 0, 'silent mode in a new perl: runs';
    is $out, 2, 'silent mode in a new perl: two lines counted';
    is $err, '', 'silent mode in a new perl: nothing on stderr';
}

# ---- the environment variable ---------------------------------------------------------

for my $m (qw(stderr warn silent)) {
    my ($status, $out) = child('print quillon_event_log::RuntimeLog::mode()', QUILLON_EVENT_LOG_RUNTIME_LOG => $m);
    is $out, $m, "QUILLON_EVENT_LOG_RUNTIME_LOG=$m sets the mode at load";
}
{
    my ($status, $out, $err) = child("my \$r = $CLASS->new(\"\\x0a\\x02\\xff\\xfe\"); print quillon_event_log::RuntimeLog::mode()",
                                     QUILLON_EVENT_LOG_RUNTIME_LOG => 'warn');
    is $err, utf8_text('bot_name', 'parsing') . " at -e line 1.\n", 'QUILLON_EVENT_LOG_RUNTIME_LOG=warn: the line comes as a warning';
}
{
    my ($status, $out, $err) = child('print quillon_event_log::RuntimeLog::mode()', QUILLON_EVENT_LOG_RUNTIME_LOG => 'quiet');
    is $out, 'stderr', 'an unknown QUILLON_EVENT_LOG_RUNTIME_LOG leaves stderr';
    is $err, qq{QUILLON_EVENT_LOG_RUNTIME_LOG: unknown runtime log mode "quiet" (expected stderr, warn or silent); using stderr\n},
        'an unknown QUILLON_EVENT_LOG_RUNTIME_LOG warns once';
}

# ---- threads: one mode and one count per interpreter ------------------------------------

SKIP: {
    my ($status, $out, $err) = child(<<"CODE");
use threads;
quillon_event_log::RuntimeLog::mode('silent');
my \$r = $CLASS->new("\\x0a\\x02\\xff\\xfe");
my \$from_thread = threads->create(sub {
    my \@seen = (quillon_event_log::RuntimeLog::mode(), quillon_event_log::RuntimeLog::silenced());
    my \$t = $CLASS->new("\\x0a\\x02\\xff\\xfe") for 1 .. 3;
    push \@seen, quillon_event_log::RuntimeLog::silenced();
    quillon_event_log::RuntimeLog::mode('warn');
    my \@w; local \$SIG{__WARN__} = sub { push \@w, \@_ };
    my \$u = $CLASS->new("\\x0a\\x02\\xff\\xfe");
    push \@seen, scalar \@w;
    return join ',', \@seen;
})->join;
print join(',', \$from_thread, quillon_event_log::RuntimeLog::mode(), quillon_event_log::RuntimeLog::silenced());
CODE
    skip 'this perl has no threads', 2 if $err =~ /This Perl not built to support threads/;
    is $out, 'silent,0,3,1,silent,1', 'a thread starts with its parent\'s mode and a zero count; its changes stay its own';
    is $err, '', 'threads: nothing on stderr';
}

# ---- nothing leaks -------------------------------------------------------------------------

SKIP: {
    skip 'Test::LeakTrace not installed', 4 unless eval { require Test::LeakTrace; 1 };
    my $r = $CLASS->new;
    my %cases = (
        'warn mode, warnings raised' => sub {
            $mode->('warn'); local $SIG{__WARN__} = sub { };
            my $o = $CLASS->new($BAD); my $b = $o->pack; $o->unpack($BAD);
        },
        'warn mode, a dying handler' => sub {
            $mode->('warn'); local $SIG{__WARN__} = sub { die "no\n" };
            eval { my $o = $CLASS->new($BAD) }; eval { $r->unpack($BAD) }; eval { my $b = $r->pack };
        },
        'warn mode, FATAL' => sub {
            $mode->('warn'); use warnings FATAL => 'quillon_event_log::RuntimeLog';
            eval { my $o = $CLASS->new($BAD) };
        },
        'silent mode and the functions' => sub {
            $mode->('silent'); my $o = $CLASS->new($BAD); my $n = $silenced->(); $reset->();
            eval { $mode->('nope') }; eval { $silenced->(1) };
        },
    );
    for my $name (sort keys %cases) {
        $cases{$name}->();    # warm up: first-use allocations are not leaks
        Test::LeakTrace::leaks_cmp_ok(\&{ $cases{$name} }, '<', 1, "no leak: $name");
    }
    $mode->('stderr');
}

done_testing;
