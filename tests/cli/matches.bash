# Sourced by the CLI checks. matches PATTERN FILE: an empty pattern accepts anything, "^$" wants
# an empty file, any other is a grep -E pattern.
matches() {
  case "$1" in
    "") return 0 ;;
    "^$") [ ! -s "$2" ] ;;
    *) grep -Eq -- "$1" "$2" ;;
  esac
}
