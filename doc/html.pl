#!/usr/bin/env perl
# All pages as HTML that needs no server and no network, with a search for names.
#   html.pl OUT MAN3 TREE     OUT/README.html is the first page; MAN3 has the manual pages of section 3
# Markdown becomes HTML where it lies in the tree, manual pages in man/. What markdown leads to besides is
# copied. names.js tells the search what there is: names of functions, types and constants, pages, headings.
use strict;
use warnings;
use File::Basename qw(basename dirname);
use File::Copy qw(copy);
use File::Path qw(make_path remove_tree);

my ($out, $man3, $tree) = @ARGV;
die "usage: html.pl OUT MAN3 TREE\n" unless defined $tree;
my %names;    # what is searched for => page
my $template = slurp("$tree/doc/html/page.html");

sub slurp {
    my ($path) = @_;
    open my $file, '<', $path or die "$path: $!\n";
    local $/;
    return <$file>;
}

sub output_of {
    open my $pipe, '-|', @_ or die "$_[0]: $!\n";
    local $/;
    my $text = <$pipe>;
    close $pipe or die "failed: @_\n";
    return $text;
}

sub write_page {
    my ($page, $title, $body) = @_;
    make_path(dirname("$out/$page"));
    my %values = (title => $title, body => $body, root => '../' x ($page =~ tr{/}{}));
    open my $file, '>', "$out/$page" or die "$out/$page: $!\n";
    print $file $template =~ s/\@(\w+)\@/$values{$1}/gr;
    close $file or die "$out/$page: $!\n";
}

# Where a link of a page leads in the pages: to HTML for markdown, else to a copy.
sub target {
    my ($page, $link) = @_;
    return $link if $link =~ m{^[a-z]+:|^#};
    my ($path, $place) = $link =~ /^([^#]*)(.*)$/;
    my $found = dirname($page) . "/$path";
    die "$page leads to $path, which is not there\n" unless -e "$tree/$found";
    return $path =~ s/\.md$/.html/r . $place if $path =~ /\.md$/;
    if (-f "$tree/$found") {
        make_path(dirname("$out/$found"));
        copy("$tree/$found", "$out/$found") or die "$found: $!\n";
        return $link;
    }
    return -e "$tree/$found/README.md" ? "$path/README.html" =~ s{//}{/}r : undef;
}

sub plain { return $_[0] =~ s/<[^>]*>//gr =~ s/\s+/ /gr =~ s/&lt;/</gr =~ s/&gt;/>/gr =~ s/&amp;/&/gr }

sub markdown {
    my ($source) = @_;
    my $page = $source =~ s/\.md$/.html/r;
    my $body = output_of('pandoc', '-f', 'gfm', '-t', 'html', '--no-highlight', '--wrap=none', "$tree/$source");
    $body =~ s{<a\s+href="([^"]*)">(.*?)</a>}{my $to = target($source, $1); defined $to ? qq(<a href="$to">$2</a>) : $2}ges;
    $body =~ s{(<img\s+src=")([^"]*)"}{$1 . target($source, $2) . '"'}ge;
    $body =~ s{<colgroup>.*?</colgroup>}{}gs;    # widths of the columns as they were typed
    my $title = $body =~ m{<h1[^>]*>(.*?)</h1>}s ? plain($1) : $source;
    $names{$title} = $page;
    $names{ plain($2) . " ($title)" } = "$page#$1" while $body =~ m{<h[23] id="([^"]*)">(.*?)</h[23]>}gs;
    write_page($page, $title, $body);
}

my %manual = map { basename($_) => $_ } glob("$man3/qvcl_*.3 $tree/doc/man/*.[157]");

sub manual {
    my ($name) = @_;
    my $body = output_of('mandoc', '-T', 'html', '-O', 'fragment,man=%N.%S.html', $manual{$name});
    # Those of the system are not here.
    $body =~ s{<a class="Xr" href="([^"]*)\.html">(.*?)</a>}{$manual{$1} ? $& : $2}ges;
    my $title = $name =~ s/(.*)\.(\d)$/$1($2)/r;
    $names{$title} = "man/$name.html";
    write_page("man/$name.html", $title, $body);
}

sub quoted { return '"' . ($_[0] =~ s/(["\\])/\\$1/gr) . '"' }

remove_tree($out);
make_path($out);
chdir $tree or die "$tree: $!\n";
markdown($_) for glob '*.md doc/*.md doc/decisions/*.md';
manual($_) for sort keys %manual;
for my $path (glob "$man3/*.3") {
    my $name = basename($path, '.3');
    $names{$name} = "man/$1.html#$name" if slurp($path) =~ m{^\.so man3/(.*)$}m;
}
copy("$tree/doc/html/$_", "$out/$_") or die "$_: $!\n" for 'search.js', 'style.css';
open my $file, '>', "$out/names.js" or die "names.js: $!\n";
print $file 'const NAMES = [', join(",\n", map { '[' . quoted($_) . ', ' . quoted($names{$_}) . ']' } sort keys %names), "];\n";
close $file or die "names.js: $!\n";
print "$out/README.html\n";
