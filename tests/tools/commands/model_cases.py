"""What tests of answers share: models made by hand, and their scores worked out here."""

import csv
import io

import models
import tool


class Model:
    """Embeddings as lists of rows; biases as lists of numbers, None for a model without."""

    def __init__(self, users, items, user_biases=None, item_biases=None):
        self.users = users
        self.items = items
        self.user_biases = user_biases
        self.item_biases = item_biases

    def score(self, user, item):
        """The score in double precision."""
        total = sum(a * b for a, b in zip(self.users[user], self.items[item]))
        if self.user_biases is not None:
            total += self.user_biases[user] + self.item_biases[item]
        return total


class ModelTest(tool.Case):
    def save(self, name, model):
        models.write_model(self.path(name), model.users, model.items, model.user_biases,
                           model.item_biases)
        return name

    def load(self, name):
        tensors = models.read_model(self.path(name))
        return Model(tensors["user_embeddings"], tensors["item_embeddings"],
                     tensors.get("user_biases"), tensors.get("item_biases"))

    def rows_of(self, output):
        """The rows of a CSV answer, without their heading."""
        rows = list(csv.reader(io.StringIO(output, newline="")))
        self.assertEqual(rows[0], ["user", "rank", "item", "score"])
        return rows[1:]
