# Copies a page, with the comment that a header starts with where the page says @contract@: contract.awk HEADER PAGE
# Of the comment, prototypes are indented by two blanks and become bold, what explains them is indented by four.
FNR == NR {
  ended = ended || / ?\*\/$/
  if (ended) next
  sub(/^(\/\*| \*) ?/, "")
  gsub(/[\\_*#<>~`]/, "\\\\&")
  if (/^  [^ ].*;$/) {
    prototypes = prototypes (prototypes == "" ? "" : "++\n") "*" substr($0, 3) "*"
    next
  }
  if (prototypes != "") contract = contract prototypes "\n\n"
  prototypes = ""
  sub(/^    /, "\t")
  contract = contract $0 "\n"
  next
}
$0 == "@contract@" {
  printf "%s", contract
  next
}
{ print }
