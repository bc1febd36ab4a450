package QelDom;

# A small DOM of an HTML page, built from HTML::Parser's events, for the
# tests of the HTML report: elements are { tag, attr, kids, parent }, where
# kids are elements and texts.

use strict;
use warnings;

use Exporter 'import';
our @EXPORT_OK = qw(parse_page elements by_id tagged text_of);

my %VOID = map { $_ => 1 } qw(area base br col embed hr img input link meta source track wbr);

sub parse_page {
    my ($html) = @_;
    require HTML::Parser;
    my $root = { tag => '#root', attr => {}, kids => [] };
    my $cur = $root;
    my $p = HTML::Parser->new(
        api_version => 3,
        start_h => [ sub {
            my ($tag, $attr) = @_;
            my $el = { tag => $tag, attr => $attr, kids => [], parent => $cur };
            push @{ $cur->{kids} }, $el;
            $cur = $el unless $VOID{$tag};
        }, 'tagname, attr' ],
        end_h => [ sub {
            my ($tag) = @_;
            my $el = $cur;
            $el = $el->{parent} while $el->{parent} && $el->{tag} ne $tag;
            $cur = $el->{parent} if $el->{tag} eq $tag && $el->{parent};
        }, 'tagname' ],
        text_h => [ sub { push @{ $cur->{kids} }, $_[0] }, 'dtext' ],
    );
    $p->empty_element_tags(1);
    $p->parse($html);
    $p->eof;
    return $root;
}

# The elements below `el` for which `match` is true, in document order.
sub elements {
    my ($el, $match) = @_;
    map { ref $_ ? (($match->($_) ? $_ : ()), elements($_, $match)) : () } @{ $el->{kids} };
}

# The one element with this id, or undef (none, or more than one).
sub by_id {
    my ($root, $id) = @_;
    my @found = elements($root, sub { ($_[0]{attr}{id} // '') eq $id });
    return @found == 1 ? $found[0] : undef;
}

sub tagged {
    my ($root, $tag, $class) = @_;
    elements($root, sub { $_[0]{tag} eq $tag && (!defined $class || ($_[0]{attr}{class} // '') eq $class) });
}

sub text_of { join '', map { ref $_ ? text_of($_) : $_ } @{ $_[0]{kids} } }

1;
