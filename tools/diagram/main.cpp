// rfid-diagram: prints the state machine as text for a program that draws it, made from the machine's table.

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "src/components/rfidhsm.h"

namespace {

using Definition = CHsmDefinition<CRfidHsm>;
using Reaction = CHsmReaction<CRfidHsm>;
using Actions = std::vector<CHsmAction<CRfidHsm>>;

constexpr std::string_view kAnyState = "AnyState";

std::string Names(const Actions& actions) {
  std::string names;
  for (const auto& action : actions) {
    names += fmt::format("{}{}", names.empty() ? "" : ", ", action.name);
  }
  return names;
}

/// A box: its title, and line by line what is done in it.
struct Box {
  std::string_view id;
  std::string_view title;
  std::vector<std::string> entry;  ///< entry and exit
  std::vector<std::string> reactions;
};

struct Arrow {
  std::string_view from;
  std::string_view to;
  std::string_view event;
};

/// What every drawing shows.
struct Drawing {
  std::vector<Box> boxes;
  std::vector<Arrow> arrows;
  std::string_view initial;
  std::string_view last;  ///< entering it stops the machine
};

/// Adds the reactions of the latest box.
void AddReactions(Drawing& drawing, const Definition& machine, const std::vector<Reaction>& reactions) {
  Box& box = drawing.boxes.back();
  for (const auto& reaction : reactions) {
    if (reaction.target == Reaction::kInternal) {
      box.reactions.push_back(fmt::format("{} / {}", *reaction.eventName, Names(reaction.actions)));
    } else {
      drawing.arrows.push_back({box.id, machine.Leaf(reaction.target).name, *reaction.eventName});
    }
  }
}

Drawing Draw(const Definition& machine) {
  Drawing drawing;
  drawing.initial = machine.Leaf(machine.initial).name;
  drawing.last = machine.Leaf(RfidHsmState::FinalStatemachine).name;
  for (const auto& leaf : machine.leaves) {
    Box box{leaf.name, leaf.name, {}, {}};
    for (const auto& action : leaf.entry) {
      box.entry.push_back(fmt::format("entry / {}", action.name));
    }
    for (const auto& action : leaf.exit) {
      box.entry.push_back(fmt::format("exit / {}", action.name));
    }
    drawing.boxes.push_back(std::move(box));
    AddReactions(drawing, machine, leaf.reactions);
  }
  drawing.boxes.push_back({kAnyState, "any state, unless it reacts itself", {}, {}});
  AddReactions(drawing, machine, machine.reactions);
  return drawing;
}

std::string DotRows(const std::vector<std::string>& lines) {
  std::string rows;
  for (const auto& line : lines) {
    rows += fmt::format("{}<br align=\"left\"/>", line);
  }
  return rows.empty() ? rows : fmt::format("<hr/><tr><td align=\"left\" balign=\"left\">{}</td></tr>", rows);
}

/// For Graphviz. Reactions that all states share are drawn once, at a box "any state".
std::string ToDot(const Definition& machine) {
  const Drawing drawing = Draw(machine);
  std::string text = fmt::format(
      "// Generated from the state machine's table by the target \"diagram\". Do not edit.\n"
      "digraph {} {{\n"
      "  graph [rankdir=TB, nodesep=0.5, ranksep=0.55, fontname=\"Helvetica\", bgcolor=\"white\"]\n"
      "  node [shape=plain, fontname=\"Helvetica\", fontsize=11]\n"
      "  edge [fontname=\"Helvetica\", fontsize=11, color=\"#37474f\", arrowsize=0.8]\n"
      "  start [shape=circle, style=filled, fillcolor=\"#37474f\", label=\"\", width=0.2]\n",
      machine.name);
  for (const auto& box : drawing.boxes) {
    const bool common = box.id == kAnyState;
    text += fmt::format(
        "  {} [label=<<table border=\"1\" cellborder=\"0\" cellspacing=\"0\" cellpadding=\"5\" style=\"{}\" "
        "color=\"#37474f\" bgcolor=\"{}\"><tr><td><b>{}</b></td></tr>{}{}</table>>]\n",
        box.id, common ? "rounded,dashed" : "rounded", common ? "#fff8e1" : "#eceff1", box.title,
        DotRows(box.entry), DotRows(box.reactions));
  }
  text += fmt::format("  start -> {}\n", drawing.initial);
  for (const auto& arrow : drawing.arrows) {
    text += fmt::format("  {} -> {} [label=\"  {}  \"{}]\n", arrow.from, arrow.to, arrow.event,
                        arrow.from == kAnyState ? ", style=dashed" : "");
  }
  return text + "}\n";
}

/// A stateDiagram-v2.
std::string ToMermaid(const Definition& machine) {
  const Drawing drawing = Draw(machine);
  std::string text =
      "%% Generated from the state machine's table by the target \"diagram\". Do not edit.\n"
      "%%{init: {\"flowchart\": {\"wrappingWidth\": 400}}}%%\n"  // so that no line of a box is broken
      "stateDiagram-v2\n";
  for (const auto& box : drawing.boxes) {
    std::string lines;
    for (const auto* part : {&box.entry, &box.reactions}) {
      for (const auto& line : *part) {
        lines += "<br/>" + line;
      }
    }
    text += fmt::format("  state \"<b>{}</b>{}\" as {}\n", box.title, lines, box.id);
  }
  text += fmt::format("  [*] --> {}\n", drawing.initial);
  for (const auto& arrow : drawing.arrows) {
    text += fmt::format("  {} --> {} : {}\n", arrow.from, arrow.to, arrow.event);
  }
  return text + fmt::format("  {} --> [*]\n", drawing.last);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view form = argc == 2 ? argv[1] : "";
  if (form != "dot" && form != "mermaid") {
    std::fputs("usage: rfid-diagram dot|mermaid\n", stderr);
    return 2;
  }
  const auto& machine = CRfidHsm::Definition();
  const std::string text = form == "dot" ? ToDot(machine) : ToMermaid(machine);
  if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
    std::perror("rfid-diagram: cannot write");
    return 1;
  }
  return 0;
}
