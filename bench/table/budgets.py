"""The limits of budgets.toml, and which rows break them."""

import fnmatch
import pathlib
import tomllib

FILE = pathlib.Path(__file__).with_name("budgets.toml")


def load():
    """Maps each row's key to its budget."""
    with open(FILE, "rb") as text:
        return {budget["row"]: budget for budget in tomllib.load(text)["budget"]}


def limit(budget):
    return f"at most {budget['most']:g}" if "most" in budget else f"at least {budget['least']:g}"


def broken(rows, budgets):
    """Returns a sentence for each measured row that breaks its budget or has none."""
    sentences = []
    for key, row in rows.items():
        budget = budgets.get(key)
        if budget is None:
            sentences.append(f"{key}: no budget in {FILE.name}")
        elif not budget.get("least", 0) <= row["ratio"] <= budget.get("most", float("inf")):
            sentences.append(f"{key}: {row['ratio']:.3f}, the budget is {limit(budget)} ({budget['reason']})")
    return sentences


def skipped(patterns, budgets):
    """Expands patterns of rows that were not measured to rows. `patterns`: pattern -> reason."""
    return {key: reason for pattern, reason in patterns.items() for key in fnmatch.filter(budgets, pattern)}
