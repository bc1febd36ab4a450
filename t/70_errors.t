#!/usr/bin/perl
# Usage and type errors of all 251 methods of the record class: a wrong
# argument count gives the interpreter's usage message naming the method and
# its usage text, a wrong invocant gives the type error, and neither changes
# the record.
use strict;
use warnings;
use Test::More;
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS $ADDR_CLASS field_names family_of error_of code_for at_re);

use quillon_event_log::QuillonEventLog;

my $IP    = $ADDR_CLASS;
my $FILE  = __FILE__;

# A value for the second argument of each two-argument method: one that would
# visibly change the record if the call went through.
my %VAL = (
    string  => sub { 'CHANGED' },
    uint32  => sub { 12345 },
    uint64  => sub { '777' },
    bool    => sub { 0 },
    address => sub { $IP->new({ ip0 => 999 }) },
    list    => sub { 'CHANGED' },
);

# Every field set to a value other than its default, so that any clear,
# set, add, copy or unpack that slipped through would show in pack.
sub full_record {
    my %h;
    for my $f (field_names()) {
        my $fam = family_of($f);
        $h{$f} = $fam eq 'string'  ? "v:$f"
               : $fam eq 'uint32'  ? 4242
               : $fam eq 'uint64'  ? '18446744073709551615'
               : $fam eq 'bool'    ? 1
               : $fam eq 'address' ? { ip0 => 1, ip1 => 2, ip2 => 3, ip3 => 4, rtdom_id => 5 }
               :                     [ 'e1', 'e2' ];
    }
    return $CLASS->new(\%h);
}

# The whole-record methods, with usage text and argument count, and the value
# used as second argument where there is one.
my @WHOLE = (
    [ DESTROY               => 'svTHIS',      1 ],
    [ copy_from             => 'svTHIS, sv',  2, sub { { bot_name => 'CHANGED' } } ],
    [ merge_from            => 'svTHIS, sv',  2, sub { { bot_name => 'CHANGED' } } ],
    [ clear                 => 'svTHIS',      1 ],
    [ is_initialized        => 'svTHIS',      1 ],
    [ error_string          => 'svTHIS',      1 ],
    [ discard_unkown_fields => 'svTHIS',      1 ],
    [ debug_string          => 'svTHIS',      1 ],
    [ short_debug_string    => 'svTHIS',      1 ],
    [ unpack                => 'svTHIS, arg', 2, sub { '' } ],
    [ pack                  => 'svTHIS',      1 ],
    [ length                => 'svTHIS',      1 ],
    [ fields                => 'svTHIS',      1 ],
    [ to_hashref            => 'svTHIS',      1 ],
);

# The per-field methods, in registration order.
my @FIELD_METHODS;
my @LIST_GETTERS;
my @names = $CLASS->fields;
is scalar(@names), 59, 'fields lists 59 names';
for my $f (@names) {
    my $fam = family_of($f);
    ok defined($fam), "field $f belongs to a known family" or next;
    my $val = $VAL{$fam};
    if ($fam eq 'list') {
        push @FIELD_METHODS, [ "${f}_size" => 'svTHIS', 1 ], [ "clear_$f" => 'svTHIS', 1 ],
                             [ "add_$f" => 'svTHIS, svVAL', 2, $val ];
        push @LIST_GETTERS, $f;
    }
    else {
        push @FIELD_METHODS, [ "has_$f" => 'svTHIS', 1 ], [ "clear_$f" => 'svTHIS', 1 ],
                             [ $f => 'svTHIS', 1 ], [ "set_$f" => 'svTHIS, svVAL', 2, $val ];
    }
}
is 1 + @WHOLE + @FIELD_METHODS + @LIST_GETTERS, 251, '251 methods covered (new, the whole-record methods, the accessors)';

# Error texts that must name this file as the place of the failing call.
sub here_re { at_re($_[0], $FILE) }

my $TYPE_RE = here_re("THIS is not of type $CLASS");

my @BAD_THIS = (
    [ 'an unblessed hash reference', sub { {} } ],
    [ 'a number',                    sub { 42 } ],
    [ 'an object of another class',  sub { bless {}, 'Some::Other::Class' } ],
    [ 'an address object',           sub { $IP->new({ ip0 => 1 }) } ],
    [ 'the class name',              sub { $CLASS } ],
);

my $r = full_record();
my $packed = $r->pack;
ok length($packed) > 100, 'the full record packs to a non-trivial byte string';

# ---------------------------------------------------------------------------
# Fixed-count methods.
# ---------------------------------------------------------------------------
for my $m (@WHOLE, @FIELD_METHODS) {
    my ($name, $usage, $n, $val) = @$m;
    my $code = code_for($name);
    ok $code, "$name is defined" or next;
    my @rest = $n == 2 ? ($val->()) : ();
    my $usage_re = here_re("Usage: ${CLASS}::$name($usage)");

    my $err = error_of { $code->($r, @rest, 'extra') };
    like $err, $usage_re, "$name with one argument too many: usage error";
    is $r->pack, $packed, "$name with one argument too many: record unchanged";

    $err = error_of { $code->(($r, @rest)[0 .. $n - 2]) };
    like $err, $usage_re, "$name with one argument too few: usage error";
    is $r->pack, $packed, "$name with one argument too few: record unchanged";

    for my $bad (@BAD_THIS) {
        my ($what, $make) = @$bad;
        my @args = ($make->(), $n == 2 ? ($val->()) : ());
        if ($name eq 'fields') {
            my @got;
            $err = error_of { @got = $code->(@args) };
            is $err, undef, "fields on $what: no type test, no error";
            is scalar(@got), 59, "fields on $what: 59 names";
            next;
        }
        $err = error_of { $code->(@args) };
        like $err, $TYPE_RE, "$name on $what: type error";
    }
    is $r->pack, $packed, "$name: record unchanged after the type errors";
}

# ---------------------------------------------------------------------------
# The list getters: zero arguments and more than one index.
# ---------------------------------------------------------------------------
for my $f (@LIST_GETTERS) {
    my $code = code_for($f);
    ok $code, "$f is defined" or next;

    my $err = error_of { $code->() };
    like $err, here_re("Usage: ${CLASS}::$f(svTHIS, ...)"), "$f without arguments: usage error";

    $err = error_of { $code->($r, 0, 1) };
    like $err, here_re("Usage: ${CLASS}::$f(CLASS, [index])"), "$f with one argument too many: CLASS, [index] message";
    is $r->pack, $packed, "$f with one argument too many: record unchanged";

    $err = error_of { $code->($r, 0, 1, 2) };
    like $err, here_re("Usage: ${CLASS}::$f(CLASS, [index])"), "$f with two indexes too many: CLASS, [index] message";

    for my $bad (@BAD_THIS) {
        my ($what, $make) = @$bad;
        $err = error_of { $code->($make->()) };
        like $err, $TYPE_RE, "$f on $what: type error";
        $err = error_of { $code->($make->(), 0) };
        like $err, $TYPE_RE, "$f with an index on $what: type error";
        $err = error_of { $code->($make->(), 0, 1) };
        like $err, $TYPE_RE, "$f with two indexes on $what: the type test comes first";
    }
    is $r->pack, $packed, "$f: record unchanged after the failing calls";
}

# ---------------------------------------------------------------------------
# new: at least one argument, and exactly the class name.
# ---------------------------------------------------------------------------
{
    my $code = code_for('new');
    ok $code, 'new is defined';
    my $err = error_of { $code->() };
    like $err, here_re("Usage: ${CLASS}::new(CLASS, ...)"), 'new without arguments: usage error';

    for my $bad (@BAD_THIS) {
        my ($what, $make) = @$bad;
        next if $what eq 'the class name';
        my $class = $make->();
        $err = error_of { $code->($class) };
        like $err, here_re("invalid class $class"), "new with $what as class: invalid class";
    }
    @My::Event::ISA = ($CLASS);
    $err = error_of { My::Event->new };
    like $err, here_re('invalid class My::Event'), 'new with a subclass name: invalid class';
    $err = error_of { $code->('') };
    like $err, here_re('invalid class '), 'new with the empty string: invalid class';
    $err = error_of { $code->("${CLASS}x") };
    like $err, here_re("invalid class ${CLASS}x"), 'new with a longer name: invalid class';
    $err = error_of { $code->('quillon_event_log::QuillonEventLo') };
    like $err, here_re('invalid class quillon_event_log::QuillonEventLo'), 'new with a shorter name: invalid class';

    my @objs;
    $err = error_of { @objs = $code->($CLASS, { bot_name => 'a' }, 'extra', 'more') };
    is $err, undef, 'new with extra arguments: no usage error';
    is scalar(@objs), 1, 'new with extra arguments: one object';
    is_deeply $objs[0]->to_hashref, {}, 'new with extra arguments: an empty record';
}

# ---------------------------------------------------------------------------
# Method-call syntax gives the same texts as function calls.
# ---------------------------------------------------------------------------
{
    my $err = error_of { $r->set_bot_name };
    like $err, here_re("Usage: ${CLASS}::set_bot_name(svTHIS, svVAL)"), 'method call set_bot_name without VAL';
    $err = error_of { $r->bot_name(1) };
    like $err, here_re("Usage: ${CLASS}::bot_name(svTHIS)"), 'method call bot_name with an extra argument';
    $err = error_of { $r->copy_from };
    like $err, here_re("Usage: ${CLASS}::copy_from(svTHIS, sv)"), 'method call copy_from without source';
    $err = error_of { $r->unpack('', '') };
    like $err, here_re("Usage: ${CLASS}::unpack(svTHIS, arg)"), 'method call unpack with an extra argument';
    $err = error_of { $CLASS->bot_name };
    like $err, $TYPE_RE, 'class-method call of a getter: type error';
    $err = error_of { $CLASS->pack };
    like $err, $TYPE_RE, 'class-method call of pack: type error';
    my @f;
    $err = error_of { @f = $CLASS->fields };
    is $err, undef, 'class-method call of fields: no error';
    is $f[0], 'bot_name', 'class-method call of fields: bot_name first';
    is $f[-1], 'http_protocol_info', 'class-method call of fields: http_protocol_info last';
    is $r->pack, $packed, 'record unchanged after the method-call errors';
}

# ---------------------------------------------------------------------------
# Subclass objects pass every type test.
# ---------------------------------------------------------------------------
{
    my $s = full_record();
    bless $s, 'My::Event';
    for my $m (@WHOLE, @FIELD_METHODS) {
        my ($name, undef, $n) = @$m;
        next unless $n == 1 && $name ne 'DESTROY' && $name !~ /^clear/;
        my $err = error_of { my @x = $s->$name };
        is $err, undef, "$name on a subclass object: accepted";
    }
    is $s->pack, $packed, 'subclass object: read-only methods left it unchanged';
    bless $s, $CLASS;
}

# ---- a FETCH that frees the record in the middle of a call ---------------------------
# Converting an argument may run Perl code; when that code destroys the very
# record of the call, the method finds an empty handle afterwards instead of
# working on freed memory (checked in the sanitizer build).
{
    package FreesRecord { sub TIESCALAR { bless { code => $_[1], v => $_[2] }, $_[0] } sub FETCH { $_[0]{code}->(); $_[0]{v} } }
    my $fill_pool = sub { my @r = map { $CLASS->new } 1 .. 20 };    # the freed record may be reused
    my $r;
    my $kill = sub { $r->DESTROY; $fill_pool->() };

    $r = $CLASS->new({ anomalies => ['a'] });
    tie my $index, 'FreesRecord', $kill, 0;
    is_deeply [ $r->anomalies($index) ], [], 'list getter: the index freed the record, an empty-handle result';
    $r = $CLASS->new({ bot_name => 'b' });
    tie my $bytes, 'FreesRecord', $kill, "\x0a\x01z";
    is $r->unpack($bytes), 0, 'unpack: the bytes freed the record, the empty-handle result 0';
    $r = $CLASS->new({ bot_name => 'b' });
    my %h;
    tie $h{host}, 'FreesRecord', $kill, 'h';
    $r->copy_from(\%h);
    is ${$r}, 0, 'copy_from: a value of the hash freed the record, nothing copied into freed memory';
    $r = $CLASS->new({ bot_name => 'b' });
    tie my $source, 'FreesRecord', $kill, $CLASS->new({ host => 's' });
    $r->merge_from($source);
    is ${$r}, 0, 'merge_from: the source freed the record, nothing merged into freed memory';
    $r = $CLASS->new({ bot_name => 'b' });
    tie my $val, 'FreesRecord', $kill, $CLASS->new({ client_ip => { ip0 => 1 } })->client_ip;
    like error_of { $r->set_client_ip($val) }, qr/^THIS holds no quillon_event_log::QuillonEventLog record at /,
        'set_client_ip: VAL freed the record, the empty-handle error';
    $r = $CLASS->new({ bot_name => 'b' });
    tie my $str, 'FreesRecord', $kill, 'v';
    like error_of { $r->set_host($str) }, qr/^THIS holds no quillon_event_log::QuillonEventLog record at /,
        'set_host: VAL freed the record, the empty-handle error';
    is scalar(keys %{ $CLASS->new->to_hashref }), 0, 'records made afterwards start empty';
}

done_testing;