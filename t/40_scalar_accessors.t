#!/usr/bin/perl
# Per-field accessors of the four scalar families (string, uint32, uint64,
# bool): defaults, set/get/has/clear for every field, the conversion rules of
# each family, the order of VAL conversion versus the invocant check, and the
# usage and type errors of all four methods of every family.
use strict;
use warnings;
use Test::More;
use B ();
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw($CLASS family_fields error_of code_for usage_re $TYPE_RE $EMPTY_RE
               flags_of is_string_sv is_int_sv present_fields empty_handle_ok);

use quillon_event_log::QuillonEventLog;

my @STRING = family_fields('string');
my @UINT32 = family_fields('uint32');
my @UINT64 = family_fields('uint64');
my @BOOL   = family_fields('bool');

my %FAMILY;
for my $fam (qw(string uint32 uint64 bool)) {
    $FAMILY{$_} = $fam for family_fields($fam);
}
my @SCALAR = grep { $FAMILY{$_} } $CLASS->fields;

is scalar(@STRING), 43, '43 string fields';
is scalar(@UINT32), 5,  '5 uint32 fields';
is scalar(@UINT64), 4,  '4 uint64 fields';
is scalar(@BOOL),   3,  '3 bool fields';
is scalar(@SCALAR), 55, 'all 55 scalar fields are listed by fields()';

my %DEFAULT = (string => '', uint32 => 0, uint64 => '0', bool => 0);

# A value of each family that differs from the default.
my %SAMPLE = (
    string => sub { "value of $_[0]" },
    uint32 => sub { 4000000000 + length $_[0] },
    uint64 => sub { '1844674407370955' . sprintf '%04d', length $_[0] },
    bool   => sub { 1 },
);

# stores_as($field, $in, $want, $name, $present_name): set_$field($in) on a new
# record reads back as $want and makes the field present.
sub stores_as {
    my ($f, $in, $want, $name, $present_name) = @_;
    my ($set, $has) = ("set_$f", "has_$f");
    my $r = $CLASS->new;
    {
        # Conversion warnings for odd values are the interpreter's business.
        no warnings qw(numeric uninitialized);
        $r->$set($in);
    }
    is $r->$f, $want, "$f: $name";
    is $r->$has, 1, "$f: $present_name";
}

# ---------------------------------------------------------------------------
# Defaults on a new record, then set / get / has / clear for every field.
# ---------------------------------------------------------------------------
for my $f (@SCALAR) {
    my $fam = $FAMILY{$f};
    my ($has, $clear, $set) = ("has_$f", "clear_$f", "set_$f");

    my $r = $CLASS->new;
    is $r->$has, 0, "$f: has_ is 0 on a new record";
    my @got = $r->$f;
    is scalar(@got), 1, "$f: getter returns one value on a new record";
    is $got[0], $DEFAULT{$fam}, "$f: default of a new record is '$DEFAULT{$fam}'";
    is $r->$has, 0, "$f: reading the default does not make the field present";

    my $v = $SAMPLE{$fam}->($f);
    my @ret = $r->$set($v);
    is scalar(@ret), 0, "$f: setter returns nothing";
    is $r->$has, 1, "$f: has_ is 1 after set";
    is $r->$f, $v, "$f: getter returns the value set";
    is_deeply present_fields($r), [$f], "$f: setting it makes no other scalar field present";

    @ret = $r->$clear;
    is scalar(@ret), 0, "$f: clear_ returns nothing";
    is $r->$has, 0, "$f: has_ is 0 after clear_";
    is $r->$f, $DEFAULT{$fam}, "$f: getter returns the default after clear_";

    $r->$set($DEFAULT{$fam});
    is $r->$has, 1, "$f: has_ is 1 after set_ with the default value";
    is $r->$f, $DEFAULT{$fam}, "$f: getter returns the default value set explicitly";

    $r->$set($v);
    $r->$set($fam eq 'string' ? 'second' : $fam eq 'bool' ? 0 : 7);
    is $r->$f, ($fam eq 'string' ? 'second' : $fam eq 'uint64' ? '7' : $fam eq 'bool' ? 0 : 7),
        "$f: a second set_ replaces the first value";

    $r->$clear;
    $r->$clear;
    is $r->$has, 0, "$f: clear_ twice is harmless";
}

# ---------------------------------------------------------------------------
# Value forms handed to Perl.
# ---------------------------------------------------------------------------
{
    my $r = $CLASS->new;
    my $v = $r->device_id;
    my $fl = flags_of($v);
    ok(($fl & B::SVf_POK), 'uint64 default "0" is a string scalar');
    ok(!($fl & B::SVf_IOK), 'uint64 default "0" is not an integer scalar');

    # [family, value set, value read back, test of the scalar's form, what
    # the form test says, what the value test says]
    my @forms = (
        [ uint64 => '18446744073709551615', '18446744073709551615', \&is_string_sv,
          'getter returns a string scalar, not a number', 'largest 64-bit value comes back as decimal text' ],
        [ uint32 => 4294967295, 4294967295, \&is_int_sv,
          'getter returns an integer scalar', 'largest 32-bit value comes back whole' ],
        [ bool => 7, 1, \&is_int_sv,
          'getter returns an integer scalar', 'true reads as exactly 1' ],
    );
    for my $form (@forms) {
        my ($fam, $in, $want, $is_form, $form_name, $value_name) = @$form;
        for my $f (family_fields($fam)) {
            my $set = "set_$f";
            $r->$set($in);
            my $got = $r->$f;
            ok $is_form->($got), "$f: $form_name";
            is $got, $want, "$f: $value_name";
        }
    }

    for my $f (@STRING) {
        my $set = "set_$f";
        $r->$set("x$f");
        my $got = $r->$f;
        ok((flags_of($got) & B::SVf_POK) && !utf8::is_utf8($got),
            "$f: getter returns a byte string scalar");
    }

    my $first = $r->bot_name;
    $first .= 'changed';
    is $r->bot_name, 'xbot_name', 'changing a returned string does not change the record';
}

# ---------------------------------------------------------------------------
# uint32 conversions (every uint32 field: one shared rule).
# ---------------------------------------------------------------------------
{
    my @cases = (
        [ 4294967296,   0,          '4294967296 wraps to 0' ],
        [ -1,           4294967295, '-1 wraps to 4294967295' ],
        [ '80abc',      80,         '"80abc" is stored as 80' ],
        [ 3.7,          3,          '3.7 is truncated to 3' ],
        [ 4294967297,   1,          '4294967297 wraps to 1' ],
        [ 70000,        70000,      '70000 is kept (no 16-bit limit)' ],
        [ 'abc',        0,          'non-numeric "abc" is stored as 0' ],
        [ '0x10',       0,          '"0x10" is not read as hexadecimal' ],
        [ ' 42',        42,         'leading white space is skipped' ],
        [ -4294967295,  1,          '-4294967295 wraps to 1' ],
    );
    for my $f (@UINT32) {
        stores_as($f, @$_, "present after storing converted value ($_->[2])") for @cases;
        stores_as($f, undef, 0, 'undef is stored as 0', 'undef still makes the field present');
    }
}

# ---------------------------------------------------------------------------
# uint64 conversions: decimal text out, strtoull base 0 in.
# ---------------------------------------------------------------------------
{
    my @cases = (
        [ '18446744073709551615', '18446744073709551615', 'largest value as text' ],
        [ '0x10',                 '16',                   '"0x10" is hexadecimal 16' ],
        [ '0X1f',                 '31',                   '"0X1f" is hexadecimal 31' ],
        [ '010',                  '8',                    '"010" is octal 8' ],
        [ '-1',                   '18446744073709551615', '"-1" negates modulo 2**64' ],
        [ '-2',                   '18446744073709551614', '"-2" negates modulo 2**64' ],
        [ '99999999999999999999', '18446744073709551615', 'too large saturates to the largest value' ],
        [ 'abc',                  '0',                    '"abc" is stored as 0' ],
        [ 1e19,                   '1',                    '1e19 passes through "1e+19" and is stored as 1' ],
        [ ' 42',                  '42',                   'leading white space is skipped' ],
        [ '+7',                   '7',                    'a leading plus sign is accepted' ],
        [ '12abc',                '12',                   'parsing stops at the first non-digit' ],
        [ '',                     '0',                    'empty string is stored as 0' ],
        [ 0,                      '0',                    'number 0 is stored as 0' ],
        [ 123456789,              '123456789',            'a number goes through its string form' ],
        [ 4.9,                    '4',                    '4.9 is read up to the dot' ],
        [ '9223372036854775808',  '9223372036854775808',  'values above the signed range are kept' ],
        [ '0x',                   '0',                    '"0x" without digits is 0' ],
        [ '089',                  '0',                    '"089" stops at the first non-octal digit' ],
    );
    for my $f (@UINT64) {
        stores_as($f, @$_, "present after storing ($_->[2])") for @cases;
        stores_as($f, undef, '0', 'undef is stored as 0', 'undef still makes the field present');
    }
}

# ---------------------------------------------------------------------------
# bool: integer non-zero test, not Perl truth.
# ---------------------------------------------------------------------------
{
    my @cases = (
        [ 0.5,          0, '0.5 stores false (integer part 0)' ],
        [ '0.9',        0, '"0.9" stores false' ],
        [ '0 but true', 0, '"0 but true" stores false' ],
        [ -3,           1, '-3 stores true' ],
        [ -1,           1, '-1 stores true' ],
        [ '1.5',        1, '"1.5" stores true' ],
        [ 'abc',        0, '"abc" stores false' ],
        [ '',           0, 'the empty string stores false' ],
        [ 2,            1, '2 stores true' ],
        [ 1,            1, '1 stores true' ],
        [ 0,            0, '0 stores false' ],
        [ 'true',       0, '"true" stores false' ],
        [ '00',         0, '"00" stores false although it is true in Perl' ],
        [ 4294967296,   1, '4294967296 stores true (no 32-bit cut)' ],
    );
    for my $f (@BOOL) {
        stores_as($f, @$_, "present after storing ($_->[2])") for @cases;
    }
}

# ---------------------------------------------------------------------------
# strings: bytes in, bytes out.
# ---------------------------------------------------------------------------
{
    for my $f (@STRING) {
        my $set = "set_$f";
        my $has = "has_$f";
        my $r = $CLASS->new;

        $r->$set("a\0b\0");
        my $got = $r->$f;
        is length($got), 4, "$f: a string with NUL bytes keeps its full length";
        is $got, "a\0b\0", "$f: a string with NUL bytes survives set and get";

        my $wide = "caf\x{e9} \x{263a}";
        $r->$set($wide);
        $got = $r->$f;
        ok !utf8::is_utf8($got), "$f: a character string comes back without the UTF-8 flag";
        is $got, "caf\xc3\xa9 \xe2\x98\xba", "$f: a character string is stored as its UTF-8 bytes";
        ok utf8::is_utf8($wide), "$f: the caller's character string keeps its UTF-8 flag";

        my $upgraded = "\xe9";
        utf8::upgrade($upgraded);
        $r->$set($upgraded);
        is $r->$f, "\xc3\xa9", "$f: an upgraded Latin-1 string is stored as its internal UTF-8 bytes";

        $r->$set("\xe9\xff");
        is $r->$f, "\xe9\xff", "$f: a byte string is stored as its raw octets";

        $r->$set(42);
        is $r->$f, '42', "$f: the number 42 is stored as \"42\"";
        $r->$set(0.5);
        is $r->$f, '0.5', "$f: the number 0.5 is stored as \"0.5\"";
        $r->$set(1e20);
        is $r->$f, '1e+20', "$f: the number 1e20 is stored in Perl's string form";

        {
            no warnings qw(uninitialized);
            $r->$set(undef);
        }
        is $r->$f, '', "$f: undef is stored as the empty string";
        is $r->$has, 1, "$f: undef still makes the field present";

        my $long = 'x' x 100_000;
        $r->$set($long);
        is $r->$f, $long, "$f: a 100000-byte string survives set and get";

        my $ref = [];
        $r->$set($ref);
        is $r->$f, "$ref", "$f: a reference is stored as its string form";
    }

    my $r = $CLASS->new;
    $r->set_bot_name('');
    is $r->has_bot_name, 1, 'set_bot_name("") makes has_bot_name 1';
    is $r->bot_name, '', 'set_bot_name("") reads back as ""';

    $r->set_bot_name('abc');
    $r->clear_bot_name;
    is $r->has_bot_name, 0, 'clear_bot_name after a set makes has_bot_name 0';
    is $r->bot_name, '', 'clear_bot_name after a set makes bot_name ""';

    $r->set_src_port(8080);
    $r->clear_src_port;
    is $r->has_src_port, 0, 'clear_src_port after set_src_port(8080) makes has_src_port 0';
    is $r->src_port, 0, 'clear_src_port after set_src_port(8080) makes src_port 0';

    my $s = 'caller';
    $r->set_bot_name($s);
    $s .= ' changed';
    is $r->bot_name, 'caller', 'the record keeps its own copy of the bytes';
}

# ---------------------------------------------------------------------------
# Order of VAL conversion and the invocant check (CountingScalar, from
# QelTest, counts the fetches of a tied VAL).
# ---------------------------------------------------------------------------
{
    my $other = bless {}, 'Some::Other::Class';
    my @converted_first = (
        [ set_src_port      => 8080 ],
        [ set_device_id     => '77' ],
        [ set_mobile_is_app => 1 ],
        [ set_dest_port     => 9 ],
        [ set_session_id    => '5' ],
        [ set_is_https_request => 1 ],
    );
    for my $c (@converted_first) {
        my ($m, $value) = @$c;
        tie my $val, 'CountingScalar', $value;
        my $err = error_of { code_for($m)->($other, $val) };
        like $err, $TYPE_RE, "$m on a wrong invocant dies with the type error";
        is tied($val)->{fetches}, 1, "$m fetches a tied VAL once before checking the invocant";
    }

    for my $m (qw(set_bot_name set_host set_http_protocol_info)) {
        tie my $val, 'CountingScalar', 'value';
        my $err = error_of { code_for($m)->($other, $val) };
        like $err, $TYPE_RE, "$m on a wrong invocant dies with the type error";
        is tied($val)->{fetches}, 0, "$m checks the invocant before fetching a tied VAL";
    }

    my $r = $CLASS->new;
    for my $c ([ set_bot_name => 'tied', bot_name => 'tied' ],
               [ set_src_port => 8080, src_port => 8080 ],
               [ set_device_id => '0x20', device_id => '32' ],
               [ set_mobile_is_app => 3, mobile_is_app => 1 ]) {
        my ($set, $value, $get, $want) = @$c;
        tie my $val, 'CountingScalar', $value;
        $r->$set($val);
        is tied($val)->{fetches}, 1, "$set on a record fetches a tied VAL exactly once";
        is $r->$get, $want, "$set stores the fetched value of a tied VAL";
    }
}

# ---------------------------------------------------------------------------
# Usage errors: every method of every field, naming the method called.
# ---------------------------------------------------------------------------
{
    my $r = $CLASS->new;
    for my $f (@SCALAR) {
        my $err;
        $err = error_of { code_for("has_$f")->() };
        like $err, usage_re("has_$f", 'svTHIS'), "has_$f without arguments: usage error";
        $err = error_of { code_for("has_$f")->($r, 1) };
        like $err, usage_re("has_$f", 'svTHIS'), "has_$f with two arguments: usage error";
        $err = error_of { code_for("clear_$f")->($r, 1) };
        like $err, usage_re("clear_$f", 'svTHIS'), "clear_$f with two arguments: usage error";
        $err = error_of { code_for($f)->($r, 1) };
        like $err, usage_re($f, 'svTHIS'), "$f with two arguments: usage error";
        $err = error_of { code_for($f)->() };
        like $err, usage_re($f, 'svTHIS'), "$f without arguments: usage error";
        $err = error_of { code_for("set_$f")->($r) };
        like $err, usage_re("set_$f", 'svTHIS, svVAL'), "set_$f with one argument: usage error";
        $err = error_of { code_for("set_$f")->($r, 1, 2) };
        like $err, usage_re("set_$f", 'svTHIS, svVAL'), "set_$f with three arguments: usage error";
    }
    is_deeply present_fields($r), [], 'no failed call changed the record';

    my $err = error_of { $r->set_bot_name };
    like $err, usage_re('set_bot_name', 'svTHIS, svVAL'), 'method call set_bot_name with one argument';
    $err = error_of { $r->bot_name(1) };
    like $err, usage_re('bot_name', 'svTHIS'), 'method call bot_name with two arguments';
}

# ---------------------------------------------------------------------------
# Type errors: every method of every field on wrong invocants.
# ---------------------------------------------------------------------------
{
    my %bad = (
        'an object of another class' => bless({}, 'Some::Other::Class'),
        'an unblessed hash reference' => {},
        'a number'                   => 42,
        'the class name'             => $CLASS,
    );
    for my $what (sort keys %bad) {
        my $this = $bad{$what};
        for my $f (@SCALAR) {
            my $err;
            $err = error_of { code_for("has_$f")->($this) };
            like $err, $TYPE_RE, "has_$f on $what: type error";
            $err = error_of { code_for("clear_$f")->($this) };
            like $err, $TYPE_RE, "clear_$f on $what: type error";
            $err = error_of { code_for($f)->($this) };
            like $err, $TYPE_RE, "$f on $what: type error";
            $err = error_of { code_for("set_$f")->($this, 1) };
            like $err, $TYPE_RE, "set_$f on $what: type error";
        }
    }
}

# ---------------------------------------------------------------------------
# Subclass objects pass the type test.
# ---------------------------------------------------------------------------
{
    @My::Event::ISA = ($CLASS);
    my $r = $CLASS->new;
    bless $r, 'My::Event';
    $r->set_bot_name('sub');
    $r->set_src_port(1);
    $r->set_device_id('2');
    $r->set_mobile_is_app(1);
    is_deeply [ $r->bot_name, $r->src_port, $r->device_id, $r->mobile_is_app ],
        [ 'sub', 1, '2', 1 ], 'accessors of every family work on a subclass object';
    bless $r, $CLASS;
}

# ---------------------------------------------------------------------------
# Empty handle: getters return nothing, the others refuse.
# ---------------------------------------------------------------------------
{
    my $empty = bless \(my $zero = 0), $CLASS;
    for my $f ($STRING[0], $UINT32[0], $UINT64[0], $BOOL[0]) {
        empty_handle_ok($empty, $f, 1, $EMPTY_RE, 'empty handle');
    }

    my $r = $CLASS->new;
    $r->set_bot_name('gone');
    $r->DESTROY;
    my @got = $r->bot_name;
    is scalar(@got), 0, 'getter after an explicit DESTROY returns the empty list';
    my $err = error_of { $r->set_bot_name('again') };
    like $err, $EMPTY_RE, 'setter after an explicit DESTROY dies';
}

# ---------------------------------------------------------------------------
# Prototypes of the four methods of every family.
# ---------------------------------------------------------------------------
for my $f ($STRING[0], $STRING[-1], @UINT32, @UINT64, @BOOL) {
    is prototype("${CLASS}::has_$f"),   '$',  "has_$f has prototype \$";
    is prototype("${CLASS}::clear_$f"), '$',  "clear_$f has prototype \$";
    is prototype("${CLASS}::$f"),       '$',  "$f has prototype \$";
    is prototype("${CLASS}::set_$f"),   '$$', "set_$f has prototype \$\$";
}

done_testing;
