# The schema, `fields` and the registered XSUBs (names, count, prototypes) must
# all describe the same 59 fields, and those must be the fields listed below.
use strict;
use warnings;
use Test::More;
use B ();
use FindBin;
use lib "$FindBin::Bin/lib";
use QelTest qw(:all);
use quillon_event_log::QuillonEventLog;

my $PKG = 'quillon_event_log::QuillonEventLog';

# The record's fields as [name, number, type, label], in field-number order.
# Written out here on purpose, and only here: the rest of the suite reads the
# field list from the .proto, so this list is what notices an accidental edit
# of the schema. Adding a field means adding its row here too.
my @EXPECTED = (
    [bot_name                               =>  1, 'string', 'optional'],
    [profile_name                           =>  2, 'string', 'optional'],
    [virtual_server_name                    =>  3, 'string', 'optional'],
    [client_ip                              =>  4, 'IPAddr', 'optional'],
    [dest_ip                                =>  5, 'IPAddr', 'optional'],
    [request_uri                            =>  7, 'string', 'optional'],
    [http_request                           =>  8, 'string', 'optional'],
    [bot_signature                          =>  9, 'string', 'optional'],
    [microservice_name                      => 10, 'string', 'optional'],
    [microservice_matched_wildcard_url      => 11, 'string', 'optional'],
    [configured_mitigation_action_reason    => 12, 'string', 'optional'],
    [actual_mitigation_action_reason        => 13, 'string', 'optional'],
    [actual_verification_action_reason      => 14, 'string', 'optional'],
    [reason                                 => 15, 'string', 'optional'],
    [mobile_app_display_name                => 16, 'string', 'optional'],
    [mobile_app_version                     => 17, 'string', 'optional'],
    [mobile_imei                            => 18, 'string', 'optional'],
    [src_port                               => 19, 'uint32', 'optional'],
    [dest_port                              => 20, 'uint32', 'optional'],
    [device_id                              => 21, 'uint64', 'optional'],
    [session_id                             => 22, 'uint64', 'optional'],
    [support_id                             => 23, 'uint64', 'optional'],
    [previous_support_id                    => 24, 'uint64', 'optional'],
    [mobile_is_app                          => 25, 'bool',   'optional'],
    [mobile_is_human_behaviour              => 26, 'string', 'optional'],
    [request_time                           => 27, 'uint32', 'optional'],
    [previous_request_time                  => 28, 'uint32', 'optional'],
    [http_method                            => 29, 'string', 'optional'],
    [country_code                           => 30, 'string', 'optional'],
    [classification                         => 32, 'string', 'optional'],
    [bot_signature_category                 => 33, 'string', 'optional'],
    [microservice_type                      => 34, 'string', 'optional'],
    [captcha_status                         => 35, 'string', 'optional'],
    [browser_verification_status            => 36, 'string', 'optional'],
    [device_id_status                       => 37, 'string', 'optional'],
    [device_id_action                       => 38, 'string', 'optional'],
    [previous_initiated_action              => 39, 'string', 'optional'],
    [previous_initiated_action_status       => 40, 'string', 'optional'],
    [mobile_os_id                           => 41, 'string', 'optional'],
    [mobile_app_emulation_mode              => 42, 'string', 'optional'],
    [mobile_app_jailbroken_rooted           => 43, 'string', 'optional'],
    [anomaly_categories                     => 44, 'string', 'repeated'],
    [anomalies                              => 45, 'string', 'repeated'],
    [configured_mitigation_action           => 46, 'string', 'optional'],
    [actual_mitigation_action               => 47, 'string', 'optional'],
    [browser_configured_verification_action => 48, 'string', 'optional'],
    [browser_actual_verification_action     => 49, 'string', 'optional'],
    [is_https_request                       => 50, 'bool',   'optional'],
    [additional_signatures                  => 51, 'string', 'optional'],
    [slot_number                            => 52, 'uint32', 'optional'],
    [host                                   => 53, 'string', 'optional'],
    [request_status                         => 54, 'string', 'optional'],
    [microservice_matched_wildcard_host     => 55, 'string', 'optional'],
    [enforced_by                            => 56, 'string', 'optional'],
    [primary_anomaly_category               => 57, 'string', 'optional'],
    [mobile_debugger_enabled_device         => 58, 'string', 'optional'],
    [is_update_request                      => 59, 'bool',   'optional'],
    [challenge_failure_reason               => 60, 'string', 'optional'],
    [http_protocol_info                     => 61, 'string', 'optional'],
);

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
is scalar @EXPECTED, 59, 'the expected list has 59 rows';

for my $i (0 .. $#EXPECTED) {
    my ($name, $num, $type, $label) = @{ $EXPECTED[$i] };
    is_deeply $pf[$i], [$name, $num, $label, $type], "proto field $i is $label $type $name = $num";
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

# ---- the suite's reading of the .proto (t/lib/QelTest.pm) --------------------

# The family of an expected row: repeated strings are lists, IPAddr fields
# addresses, the others are named by their type.
sub family_of_row {
    my (undef, undef, $type, $label) = @{ $_[0] };
    return $label eq 'repeated' ? 'list' : $type eq 'IPAddr' ? 'address' : $type;
}

is_deeply [field_table()], [map { [$_->[0], $_->[1], family_of_row($_)] } @EXPECTED],
    'field_table: every expected field with its number and family, in field-number order';
is_deeply [field_names()], [map { $_->[0] } @EXPECTED], 'field_names: the expected names in field-number order';
for my $family (qw(string uint32 uint64 bool address list)) {
    is_deeply [family_fields($family)], [map { $_->[0] } grep { family_of_row($_) eq $family } @EXPECTED],
        "family_fields('$family'): the expected $family fields in field-number order";
}
is_deeply [address_fields()], [qw(ip0 ip1 ip2 ip3 rtdom_id)], 'address_fields: ip0 ip1 ip2 ip3 rtdom_id';
eval { family_fields('int32') };
like $@, qr/^family_fields: unknown family 'int32'\n\z/, 'family_fields refuses a family that does not exist';

my %count;
$count{ $_->[2] }++ for field_table();
is_deeply \%count, { string => 43, uint32 => 5, uint64 => 4, bool => 3, address => 2, list => 2 },
    'families: 43 strings, 5 uint32, 4 uint64, 3 bool, 2 addresses, 2 lists';

# The string fields whose names read as yes/no attributes stay strings.
for my $f (qw(mobile_is_human_behaviour mobile_app_emulation_mode
              mobile_app_jailbroken_rooted mobile_debugger_enabled_device)) {
    is family_of($f), 'string', "$f is a string field";
}

# ---- `fields` ----------------------------------------------------------------

my @names = $PKG->fields;
is_deeply \@names, [map { $_->[0] } @pf], '`fields` returns the 59 names of the .proto in declaration order';
is_deeply \@names, [map { $_->[0] } @EXPECTED], '`fields` returns the 59 expected names in field-number order';
is scalar @names, 59, '`fields` returns 59 names';

# ---- per-field methods -------------------------------------------------------

for my $f (@EXPECTED) {
    my ($name, undef, undef, $label) = @$f;
    my @methods = $label eq 'repeated'
        ? ("${name}_size", "clear_$name", $name, "add_$name")
        : ("has_$name", "clear_$name", $name, "set_$name");
    ok $PKG->can($_), "$PKG can $_" for @methods;
    if ($label eq 'repeated') {
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
for my $f (@EXPECTED) {
    my ($name, undef, undef, $label) = @$f;
    if ($label eq 'repeated') {
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
