"""The code of a cell, run as IPython runs it."""

import ast
import inspect
import io
import re
import tokenize

from ._cli import UsageError

_VALUE = "_value_of_the_cell"


class CellCode:
    """A cell's code. `above` is what stands above it in the cell, as a comment."""

    def __init__(self, shell, text, above=""):
        self._shell = shell
        # IPython leaves out the lines before the first one with text.
        blank = re.match(r"\s*\n|", text)[0].count("\n")
        source = above + "\n" * blank + shell.transform_cell(text)
        name = shell.compile.cache(source, shell.execution_count, raw_code=source)
        tree = shell.transform_ast(shell.compile.ast_parse(source, name))
        if not _ends_with_semicolon(source):
            _keep_last_value(tree)
        with shell.compile.extra_flags(ast.PyCF_ALLOW_TOP_LEVEL_AWAIT):
            self._code = shell.compile(tree, name, "exec")
        if self._code.co_flags & inspect.CO_COROUTINE:
            raise UsageError("a cell that awaits is not recorded; what it calls may await")

    def run(self, names, local_names):
        """Gives the value of the last expression, where the code ends with one."""
        try:
            exec(self._code, names, local_names)
        except BaseException as error:
            self._begin_traceback_here(error)
            raise
        return local_names.pop(_VALUE, None)

    def _begin_traceback_here(self, error):
        """Has IPython show what it would show without us: the frames from the cell's own on."""

        def render():
            show = self._shell.InteractiveTB.structured_traceback
            return show(type(error), error, self._own_part(error.__traceback__), tb_offset=0)

        if not hasattr(error, "_render_traceback_"):
            error._render_traceback_ = render

    def _own_part(self, traceback):
        """From the cell's frame on; all of it where the cell has none."""
        own = traceback
        while own and own.tb_frame.f_code is not self._code:
            own = own.tb_next
        return own or traceback


def _keep_last_value(tree):
    if tree.body and isinstance(tree.body[-1], ast.Expr):
        last = tree.body[-1]
        kept = ast.Assign([ast.Name(_VALUE, ast.Store())], last.value)
        tree.body[-1] = ast.fix_missing_locations(ast.copy_location(kept, last))


def _ends_with_semicolon(source):
    """That is how a cell says that its value is not to be shown."""
    unimportant = (tokenize.COMMENT, tokenize.NL, tokenize.NEWLINE, tokenize.ENDMARKER)
    tokens = tokenize.generate_tokens(io.StringIO(source).readline)
    texts = [token.string for token in tokens if token.type not in unimportant]
    return texts[-1:] == [";"]


def place_names(shell):
    """A function that has the places of functions tell cells, where they stand in cells."""

    def with_cells(places):
        return {name: (_cell_name(shell, file), line) for name, (file, line) in places.items()}

    return with_cells


def _cell_name(shell, file):
    """"Cell In[3]", or the file as it is."""
    number = getattr(shell.compile, "_filename_map", {}).get(file)
    return file if number is None else f"Cell In[{number}]"
