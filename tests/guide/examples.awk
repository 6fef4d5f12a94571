# Turns each ```cpp block of a page into a function with these parameters, and lists them as NAME. Declarations stay visible to
# the blocks that follow if `joined` is set.
/^```cpp$/ {
  if (!joined) printf "void %s%d(%s) {\n", name, ++count, parameters
  printf "#line %d \"%s\"\n", NR + 1, page
  inside = 1
  next
}
/^```$/ && inside {
  if (!joined) print "}"
  inside = 0
  next
}
inside { print }
END {
  if (joined) exit
  printf "using Example = void (*)(%s);\nconst Example %ss[] = {", parameters, name
  for (i = 1; i <= count; i++) printf "%s%d, ", name, i
  print "};"
}
