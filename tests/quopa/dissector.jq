# Compares what tshark shows of each packet ($shown: tshark -T json --no-duplicate-keys) with what quopa says of the same
# message (. : an array of what quopa trace --json --ipv6 prints). Prints each difference, and how much was compared.
# $types is the array of what quopa types --json prints.

($types | map({key: .type, value: .}) | from_entries) as $by_name
| def object: if type == "object" then . else {} end;
def list: if . == null then [] elif type == "array" then . else [.] end;

# What is below a field: beside it, or in its place where it has no value of its own.
def below($key): (.[$key + "_tree"] // .[$key]) | object;

# A table as tshark shows it, as far as quopa decoded it. Members that tshark does not show are absent, hence zero.
def seen($type; $record; $node):
  ($type | split(".")[0]) as $package
  | reduce ($record | keys_unsorted[]) as $member ({};
      $by_name[$type].slots[$member[1:] | tonumber].kind as $kind
      | "quopa.\($type).\($member)" as $key
      | ($kind | capture("^u(?<bits>8|16|32)(\\[(?<elements>\\d+)\\])?$") // {}) as $number
      | ($kind | capture("^(table|vector)\\((?<inner>\\w+)\\)$") // {}) as $nest
      | .[$member] = (
          if $nest.inner and ($kind | startswith("table")) then
            seen("\($package).\($nest.inner)"; $record[$member]; $node | below($key))
          elif $nest.inner then
            ($node | below($key)["quopa.element_tree"] | list) as $elements
            | [range($record[$member] | length) as $k
               | seen("\($package).\($nest.inner)"; $record[$member][$k]; $elements[$k] | object)]
          elif $kind == "u32[4]" then $node[$key] // "::"
          elif $kind == "bytes" then ($node[$key] // "") | gsub(":"; "")
          elif $number.elements and $number.bits == "8" then
            if $node[$key] then $node[$key] | gsub(":"; "") else "00" * ($number.elements | tonumber) end
          elif $number.elements then
            if $node[$key] then $node[$key] | list | map(tonumber) else [range($number.elements | tonumber) | 0] end
          else ($node[$key] // "0") | tonumber
          end));

# What tshark says of a packet, in quopa's words.
def message($wanted; $top):
  ($top.quopa | object) as $node
  | $wanted + {
      direction: (if $top["quopa.kind"] == "0" then "sent" else "received" end),
      type: $top["quopa.type"],
      handle: ($top["quopa.handle"] | tonumber), status: ($top["quopa.status"] | tonumber),
      index: ($top["quopa.index"] | tonumber), count: ($top["quopa.count"] | tonumber),
      thread: ($top["quopa.thread"] | tonumber),
      record: seen($wanted.type; $wanted.record; $node)}
  | if $node["quopa.rejected.at"] then
      ($node["quopa.rejected.at_tree"]) as $tree
      | .rejected = {at: ($node["quopa.rejected.at"] | tonumber), reason: $tree["quopa.rejected.reason"],
                     logged: $wanted.rejected.logged}
      | if $tree["_ws.expert"]["_ws.expert.message"] == "rejected at \(.rejected.at): \(.rejected.reason)" then . else
          .rejected.expert = $tree["_ws.expert"]["_ws.expert.message"] end
    else del(.rejected) end;

. as $messages
| [range(length) as $i
   | $messages[$i] as $wanted
   | $shown[$i]._source.layers as $layers
   | (message($wanted; $layers.quopa) | .packet = ($layers.frame["frame.number"] | tonumber)) as $got
   | select($got != $wanted)
   | "packet \($i + 1):\n  quopa  \($wanted | tojson)\n  tshark \($got | tojson)"] as $differences
| $differences[],
  "\(length) compared, \(map(select(.rejected)) | length) of them rejected, \($differences | length) differ, \(($shown | length) - length) more shown"
