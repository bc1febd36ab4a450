# The schema, the test suite's own field table, `fields` and the registered
# XSUBs (names, count, prototypes) must all describe the same 59 fields.
use strict;
use warnings;
use Test::More;
use B ();
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';
my @table = field_table();    # [name, number, kind]

# ---- the .proto itself -------------------------------------------------------

my $proto = proto_text();
like $proto, qr/^\s*syntax\s*=\s*"proto2"\s*;/m, 'the .proto declares proto2 syntax';
like $proto, qr/^\s*package\s+quillon_event_log\s*;/m, 'the .proto declares package quillon_event_log';
unlike $proto, qr/^\s*import\b/m, 'the .proto imports nothing';
unlike $proto, qr/^\s*option\b/m, 'the .proto sets no file option';
my @messages = $proto =~ /\bmessage\s+(\w+)/g;
is_deeply \@messages, [qw(IPAddr QuillonEventLog)], 'the .proto declares IPAddr and QuillonEventLog, in that order';

my @addr = proto_fields('IPAddr');
is_deeply \@addr, [
    [ip0 => 1, optional => 'uint32'],
    [ip1 => 2, optional => 'uint32'],
    [ip2 => 3, optional => 'uint32'],
    [ip3 => 4, optional => 'uint32'],
    [rtdom_id => 5, optional => 'uint32'],
], 'IPAddr has the five optional uint32 fields ip0..ip3, rtdom_id numbered 1..5';

my @pf = proto_fields();
is scalar @pf, 59, 'QuillonEventLog declares 59 fields';

my %proto_type = (string => 'string', uint32 => 'uint32', uint64 => 'uint64',
                  bool => 'bool', address => 'IPAddr', list => 'string');
for my $i (0 .. $#table) {
    my ($name, $num, $kind) = @{ $table[$i] };
    my $label = $kind eq 'list' ? 'repeated' : 'optional';
    is_deeply $pf[$i], [$name, $num, $label, $proto_type{$kind}],
        "proto field $i is $label $proto_type{$kind} $name = $num";
}

my @numbers = map { $_->[1] } @pf;
is_deeply \@numbers, [sort { $a <=> $b } @numbers], 'declaration order is field-number order';
my %used = map { $_ => 1 } @numbers;
is_deeply [grep { !$used{$_} } 1 .. 61], [6, 31], 'numbers 6 and 31 are the only unused numbers up to 61';
is $numbers[-1], 61, 'the highest field number is 61';
is scalar(keys %used), 59, 'no field number is used twice';
unlike $proto, qr/\bdefault\s*=/, 'no field declares a default';
unlike $proto, qr/\brequired\b/, 'no field is required';
is scalar(grep { $_->[2] eq 'repeated' } @pf), 2, 'exactly two repeated fields';

my %count;
$count{ $_->[2] }++ for @table;
is_deeply \%count, { string => 43, uint32 => 5, uint64 => 4, bool => 3, address => 2, list => 2 },
    'families: 43 strings, 5 uint32, 4 uint64, 3 bool, 2 addresses, 2 lists';

# The string fields whose names read as yes/no attributes stay strings.
my %kind = map { $_->[0] => $_->[2] } @table;
for my $f (qw(mobile_is_human_behaviour mobile_app_emulation_mode
              mobile_app_jailbroken_rooted mobile_debugger_enabled_device)) {
    is $kind{$f}, 'string', "$f is a string field";
}

# ---- `fields` ----------------------------------------------------------------

my @names = $PKG->fields;
is_deeply \@names, [map { $_->[0] } @pf], '`fields` returns the 59 names of the .proto in declaration order';
is scalar @names, 59, '`fields` returns 59 names';

# ---- per-field methods -------------------------------------------------------

for my $f (@table) {
    my ($name, undef, $kind) = @$f;
    my @methods = $kind eq 'list'
        ? ("${name}_size", "clear_$name", $name, "add_$name")
        : ("has_$name", "clear_$name", $name, "set_$name");
    ok $PKG->can($_), "$PKG can $_" for @methods;
    if ($kind eq 'list') {
        ok !$PKG->can("has_$name"), "no has_$name for the repeated field";
        ok !$PKG->can("set_$name"), "no set_$name for the repeated field";
    }
    else {
        ok !$PKG->can("add_$name"), "no add_$name for the singular field";
        ok !$PKG->can("${name}_size"), "no ${name}_size for the singular field";
    }
}

# ---- the XSUBs in the stash --------------------------------------------------

my @whole = qw(new DESTROY copy_from merge_from clear is_initialized error_string
               discard_unkown_fields debug_string short_debug_string unpack pack
               length fields to_hashref);
my %expected_proto = map { $_ => '$' } @whole;
$expected_proto{$_} = '$$' for qw(copy_from merge_from unpack);
$expected_proto{new} = '$;@';
for my $f (@table) {
    my ($name, undef, $kind) = @$f;
    if ($kind eq 'list') {
        @expected_proto{"${name}_size", "clear_$name", $name, "add_$name"} = ('$', '$', '$;@', '$$');
    }
    else {
        @expected_proto{"has_$name", "clear_$name", $name, "set_$name"} = ('$', '$', '$', '$$');
    }
}
is scalar(keys %expected_proto), 251, 'the expected method table has 251 names';

# The loader installs the shared object's boot entry as ${PKG}::bootstrap; it
# is the loader's, not one of the class's methods.
my (%xsub, %perl_sub);
{
    no strict 'refs';
    ok defined &{"${PKG}::bootstrap"}, 'the loader installed the boot entry as bootstrap';
    for my $sym (keys %{"${PKG}::"}) {
        next if $sym eq 'bootstrap';
        next unless defined &{"${PKG}::$sym"};
        my $code = \&{"${PKG}::$sym"};
        if (B::svref_2object($code)->XSUB) { $xsub{$sym} = $code }
        else                               { $perl_sub{$sym} = $code }
    }
}
is scalar(keys %xsub), 251, 'exactly 251 XSUBs in the stash';
is_deeply [sort keys %xsub], [sort keys %expected_proto], 'the XSUB names are the 15 whole-record methods and 4 per field';
ok !exists $xsub{from_hashref}, 'from_hashref is not a Perl method';
ok exists $xsub{discard_unkown_fields}, 'discard_unkown_fields keeps its public spelling';
ok !$PKG->can('discard_unknown_fields'), 'there is no discard_unknown_fields';

for my $name (sort keys %expected_proto) {
    is prototype("${PKG}::$name"), $expected_proto{$name}, "prototype of $name is \"$expected_proto{$name}\"";
}

my %files = map { B::svref_2object($_)->FILE => 1 } values %xsub;
is scalar(keys %files), 1, 'all 251 XSUBs carry one file name';

done_testing;
