# Parts of a page from what a program prints of itself.
# Input: the page of `zendar --markdown`, or the text of `--help` of another program.
# part: arguments and options of the first; description and options of the other.
# form: roff (the default) or markdown.

function roff(text) {
    gsub(/\\/, "\\e", text)
    gsub(/-/, "\\-", text)
    gsub(/\^/, "\\(ha", text)
    gsub(/~/, "\\(ti", text)
    gsub(/'/, "\\(aq", text)
    gsub(/`/, "\\(ga", text)
    return text
}

# *word* is slanted, \* is a star.
function from_markdown(text,    result, at, end) {
    gsub(/\\\*/, "\001", text)
    result = ""
    while (match(text, /\*[^* ]+\*/)) {
        result = result roff(substr(text, 1, RSTART - 1)) "\\fI" roff(substr(text, RSTART + 1, RLENGTH - 2)) "\\fR"
        text = substr(text, RSTART + RLENGTH)
    }
    result = result roff(text)
    gsub(/\001/, "*", result)
    return result
}

function entry(term, text) {
    if (form == "markdown") {
        print "- `" term "`\n"
        if (text != "") print "  " text "\n"
    } else {
        print ".TP\n.B " roff(term)
        if (text != "") print text
    }
}

# ---- zendar --markdown

markdown_input && /^\| / && !/^\| Argument/ && part == "arguments" {
    cells = split(substr($0, 3, length($0) - 4), cell, / \| /)
    gsub(/`/, "", cell[1])
    gsub(/`/, "", cell[3])
    entry(cell[1], roff(cell[3]) (cell[2] == ".false." ? "." : " (default: " roff(cell[2]) ")."))
}
markdown_input && part == "options" {
    if (/^### /) {
        print ".SS " roff(substr($0, 5))
        seen = 1
    } else if (/^- `/) {
        entry(substr($0, 4, length($0) - 4), "")
        item = 0
    } else if (/^  - /) {
        print ".br\n" from_markdown(substr($0, 5))
    } else if (/^  /) {
        print from_markdown(substr($0, 3))
    }
    next
}

# ---- --help of another program

function flush_term() {
    if (term != "") entry(term, form == "markdown" ? text : roff(text))
    term = ""
    text = ""
}
function flush_paragraph() {
    if (paragraph != "") {
        print (form == "markdown" ? paragraph "\n" : (paragraphs++ ? ".PP\n" : "") roff(paragraph))
    }
    paragraph = ""
}
!markdown_input && /^usage: / { next }
!markdown_input && /^Options:/ { in_options = 1; flush_paragraph(); next }
!markdown_input && !in_options && part == "description" {
    if ($0 == "") flush_paragraph()
    else paragraph = paragraph (paragraph == "" ? "" : " ") $0
}
!markdown_input && in_options && part == "options" {
    if (/^   [^ ]/) {
        flush_term()
        term = substr($0, 4)
    } else if (term != "") {
        sub(/^ +/, "")
        text = text (text == "" ? "" : " ") $0
    }
}
END {
    if (!markdown_input && part == "description") flush_paragraph()
    if (!markdown_input && part == "options") flush_term()
}
