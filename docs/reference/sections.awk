# Doxygen reads the header through this: a section, which is a title between two rules, becomes a
# group, and the comment at the top becomes the first page. Lines keep their numbers.

NR == 1 {
    print "/** @mainpage The interface"
    next
}

/^\/\* -+ \*\/$/ {
    in_title = !in_title
    print in_title ? (in_group ? "/** @} */" : "") : "@{ */"
    next
}

in_title {
    title = $0
    gsub(/^\/\* +| +\*\/$/, "", title)
    name = tolower(title)
    gsub(/[^a-z]+/, "_", name)
    print "/** @defgroup " name " " title
    in_group = 1
    next
}

{ print }

END { print "/** @} */" }
