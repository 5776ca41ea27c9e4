%% Writes values of every message form of a protocol, built from the type definitions an
%% independent aligned-PER compiler made of the ASN.1 modules (its .asn1db) and encoded by it.
%% Each form gets values with every IE present and every string, list and number at the lower
%% end of its size or range (empty strings where allowed), with only the mandatory IEs, with
%% each IE in turn at the upper end, beyond the root of extensible types, and with each CHOICE
%% alternative in turn. One line per value: "Message variant hex", or "ERR Message variant why".
-module(asn_erl_gen).
-export([main/1]).

%% Upper ends that would not fit a PDU are cut to the first of these that does.
-define(CAPS, [4096, 1024, 256, 64, 16, 4, 2]).
-define(LIMIT, 4800).
%% An unconstrained string at its upper end: long enough for a two-octet length.
-define(UNBOUNDED, 130).

main([ModS, DbFile, OutFile]) ->
    Mod = list_to_atom(ModS),
    {ok, Tab} = ets:file2tab(DbFile),
    put(tab, Tab),
    put(mod, Mod),
    {ok, Text} = file:read_file(filename:join(filename:dirname(DbFile), ModS ++ "-PDU-Contents.asn")),
    Lines = string:split(binary_to_list(Text), "\n", all),
    put(contents, lists:zip(lists:seq(1, length(Lines)), Lines)),
    {ok, Out} = file:open(OutFile, [write]),
    Procs = objects(list_to_atom(ModS ++ "-ELEMENTARY-PROCEDURES")),
    %% A PDU to carry where an IE holds a whole message of the protocol: an overload stop.
    [Stop] = [Fields || {_, Fields} <- Procs, field('InitiatingMessage', Fields) =/= undefined,
                        element(4, field('InitiatingMessage', Fields)) =:= 'OverloadStop'],
    {ok, StopPdu} = Mod:encode(list_to_atom(ModS ++ "-PDU"),
                               {initiatingMessage, {'InitiatingMessage', value_of(field(procedureCode, Stop)),
                                                    value_of(field(criticality, Stop)), {'OverloadStop', []}}}),
    put(message, StopPdu),
    Forms = [{'InitiatingMessage', initiatingMessage}, {'SuccessfulOutcome', successfulOutcome},
             {'UnsuccessfulOutcome', unsuccessfulOutcome}],
    lists:foreach(
      fun({_Key, Fields}) ->
              Code = value_of(field(procedureCode, Fields)),
              Crit = value_of(field(criticality, Fields)),
              [form(Out, Mod, list_to_atom(ModS ++ "-PDU"), Alt, RecName, Code, Crit, TypeRef)
               || {RecName, Alt} <- Forms, (TypeRef = field(RecName, Fields)) =/= undefined]
      end, Procs),
    file:close(Out),
    halt(0).

form(Out, Mod, PduType, Alt, RecName, Code, Crit, {'Externaltypereference', _, _, Msg}) ->
    case message_ies(Msg) of
        none -> ok;   % a private message: no IE container to fill
        Ies -> form(Out, Mod, PduType, Alt, RecName, Code, Crit, Msg, Ies)
    end.

form(Out, Mod, PduType, Alt, RecName, Code, Crit, Msg, Ies) ->
    Variants =
        [{"min", #{mode => min, opt => all, alt => 0}},
         {"mandatory", #{mode => min, opt => none, alt => 0}},
         {"max", #{mode => max, opt => all, alt => last}},
         {"beyond", #{mode => ext, opt => all, alt => ext}}] ++
        [{"alt" ++ integer_to_list(K), #{mode => min, opt => all, alt => K}} || K <- lists:seq(1, 7)] ++
        [{"max-" ++ integer_to_list(Id), #{mode => min, opt => none, alt => last, focus => Id}} || Id <- Ies] ++
        [{"beyond-" ++ integer_to_list(Id), #{mode => min, opt => none, alt => ext, focus => Id}} || Id <- Ies],
    emit(Out, Mod, PduType, Alt, RecName, Code, Crit, Msg, Variants, #{}).

emit(_, _, _, _, _, _, _, _, [], _) -> ok;
emit(Out, Mod, PduType, Alt, RecName, Code, Crit, Msg, [{Name, Cfg} | Rest], Seen) ->
    Seen1 = case encode_capped(Mod, PduType, Alt, RecName, Code, Crit, Msg, Cfg, ?CAPS) of
                {ok, Hex} ->
                    case maps:is_key(Hex, Seen) of
                        true -> Seen;
                        false -> io:format(Out, "~s ~s ~s~n", [Msg, Name, Hex]), Seen#{Hex => true}
                    end;
                {error, Why} ->
                    io:format(Out, "ERR ~s ~s ~0p~n", [Msg, Name, Why]),
                    Seen
            end,
    emit(Out, Mod, PduType, Alt, RecName, Code, Crit, Msg, Rest, Seen1).

encode_capped(_, _, _, _, _, _, _, _, []) -> {error, too_large};
encode_capped(Mod, PduType, Alt, RecName, Code, Crit, Msg, Cfg, [Cap | Caps]) ->
    Value = {Alt, {RecName, Code, Crit, gen_ref(Msg, Cfg#{cap => Cap, depth => 0})}},
    try Mod:encode(PduType, Value) of
        {ok, Bin} when byte_size(Bin) =< ?LIMIT ->
            {ok, string:lowercase(binary_to_list(binary:encode_hex(Bin)))};
        {ok, _} -> encode_capped(Mod, PduType, Alt, RecName, Code, Crit, Msg, Cfg, Caps);
        E -> {error, E}
    catch C:R -> {error, {C, R}}
    end.

%% ---------------------------------------------------------------- the type database

typedef(Name) ->
    case ets:lookup(get(tab), Name) of
        [{_, {typedef, _, _, _, Def}}] -> Def;
        _ -> erlang:error({no_type, Name})
    end.

%% The objects of a set in the order the module lists them (the database keeps them by key), as
%% the IEs of a container are sent: by where their value type is named in the text.
objects(SetName) ->
    case get({objects, SetName}) of
        undefined ->
            Sorted = sorted_objects(SetName),
            put({objects, SetName}, Sorted),
            Sorted;
        Sorted -> Sorted
    end.

sorted_objects(SetName) ->
    {'ObjectSet', _, _, _, Objs} = typedef(SetName),
    Keyed = [{text_pos(Fields), Key, Fields} || {_, Key, Fields} <- Objs],
    Placed = [P || {P, _, _} <- Keyed, is_integer(P)],
    [{Key, Fields} || {_, Key, Fields} <- lists:sort([{place(P, Placed), K, F} || {P, K, F} <- Keyed])].

text_pos(Fields) ->
    case [ref_pos(V) || {F, V} <- Fields, F =:= 'Value' orelse F =:= 'Extension'] of
        [P | _] when is_integer(P) -> P;
        _ -> {unplaced, id_name(field(id, Fields))}
    end.

id_name({valuedef, _, _, Name, _, _, _}) -> atom_to_list(Name);
id_name(_) -> "".

%% An object whose type is written out in place (TYPE OCTET STRING) has no position of its own:
%% it stands on the line naming its id that lies nearest the set's other objects.
place(P, _) when is_integer(P) -> P;
place({unplaced, Id}, Placed) ->
    Near = case Placed of [] -> 0; _ -> lists:min(Placed) end,
    Lines = [N || {N, L} <- get(contents), string:find(L, "ID " ++ Id ++ " ") =/= nomatch orelse
                                           string:find(L, "ID " ++ Id ++ "\t") =/= nomatch],
    case lists:sort([{abs(N - Near), N} || N <- Lines]) of
        [{_, N} | _] -> N;
        [] -> 0
    end.

%% The first position of a type named in a term (an inline type names its contents).
ref_pos({'Externaltypereference', P, _, _}) when is_integer(P) -> P;
ref_pos(T) when is_tuple(T) -> ref_pos(tuple_to_list(T));
ref_pos([H | Rest]) ->
    case ref_pos(H) of
        none -> ref_pos(Rest);
        P -> P
    end;
ref_pos(_) -> none.

field(Name, Fields) -> proplists:get_value(Name, Fields).

value_of({valuedef, _, _, _, _, V, _}) -> V.

%% The ids of the IEs a message's container may hold.
message_ies(Msg) ->
    {type, _, {'SEQUENCE', _, _, _, Comps}, _, _, _} = typedef(Msg),
    case [C || C <- root(Comps), element(3, C) =:= protocolIEs] of
        [] -> none;
        [C] ->
            {type, _, {'SEQUENCE OF', Item}, _, _, _} = element(4, C),
            {type, _, {'SEQUENCE', _, {simpletableattributes, {_, Set}, _, _, _, _, _}, _, _}, _, _, _} = Item,
            [Key || {Key, _} <- objects(Set)]
    end.

root(Comps) when is_list(Comps) -> [C || C = {'ComponentType', _, _, _, _, _, _} <- Comps];
root({Root, _Ext}) -> root(Root);
root({Root1, _Ext, Root2}) -> root(Root1) ++ root(Root2).

%% Components in the order of the record: root, extension additions (never sent), root again.
record_fields(Comps) when is_list(Comps) -> [{root, C} || C = {'ComponentType', _, _, _, _, _, _} <- Comps];
record_fields({Root, Ext}) -> record_fields(Root) ++ [{ext, C} || C = {'ComponentType', _, _, _, _, _, _} <- Ext];
record_fields({Root1, Ext, Root2}) -> record_fields({Root1, Ext}) ++ record_fields(Root2).

%% ---------------------------------------------------------------- values

gen_ref(Name, Cfg) -> gen(typedef(Name), Name, [], Cfg).

%% A value of the type; Name names its record, Outer holds constraints added where it is used.
gen({type, _, {'Externaltypereference', _, _, Ref}, C, _, _}, _Name, Outer, Cfg) ->
    {type, _, _, _, _, _} = Def = typedef(Ref),
    gen(Def, Ref, C ++ Outer, Cfg);
gen({type, _, Def, C0, _, _}, Name, Outer, Cfg) ->
    C = Outer ++ C0,
    case Def of
        'INTEGER' -> integer(C, Cfg);
        {'INTEGER', _} -> integer(C, Cfg);
        'BOOLEAN' -> maps:get(mode, Cfg) =/= min;
        'NULL' -> 'NULL';
        {'ENUMERATED', Values} -> enumerated(Values, Cfg);
        'OCTET STRING' ->
            case [T || {contentsconstraint, T, _} <- C] of
                [{type, _, {'Externaltypereference', _, _, Ref}, _, _, _} | _] -> containing(Ref, Cfg);
                _ -> octets(size(C, Cfg, string), Name)
            end;
        'BIT STRING' -> bits(size(C, Cfg, string));
        {'BIT STRING', _} -> bits(size(C, Cfg, string));
        'PrintableString' -> text(size(C, Cfg, string));
        'VisibleString' -> text(size(C, Cfg, string));
        'IA5String' -> text(size(C, Cfg, string));
        {'SEQUENCE OF', Item} -> list(Item, Name, C, Cfg);
        {'SEQUENCE', _, {simpletableattributes, {_, Set}, Key, _, _, _, _}, _, Comps} ->
            table_field(Key, Comps, hd(objects(Set)), Cfg);
        {'SEQUENCE', Pname, _, _, Comps} -> sequence(record_name(Pname, Name), Comps, Cfg);
        {'CHOICE', Alts} -> choice(Alts, Name, Cfg);
        Other -> erlang:error({unsupported, Name, Other})
    end.

record_name(Pname, _Name) when is_atom(Pname), Pname =/= false -> Pname;
record_name(_, Name) -> Name.

%% The bounds of a constraint: {Lb, Ub, Extensible}.
range(C, Tag) ->
    case [R || {T, R} <- C, T =:= Tag] ++ [R || {{T, R}, _} <- C, T =:= Tag] of
        [] -> none;
        [{Lb, Ub} | _] when is_integer(Lb) -> {Lb, Ub, extensible(C, Tag)};
        [{{Lb, Ub}, _} | _] -> {Lb, Ub, true};
        [N | _] when is_integer(N) -> {N, N, extensible(C, Tag)};
        [{N, _} | _] when is_integer(N) -> {N, N, true}
    end.

extensible(C, Tag) -> [x || {{T, _}, _} <- C, T =:= Tag] =/= [] orelse
                          [x || {T, {{_, _}, _}} <- C, T =:= Tag] =/= [].

integer(C, #{mode := Mode}) ->
    case {range(C, 'ValueRange'), [V || {'SingleValue', V} <- C]} of
        {{Lb, Ub, Ext}, _} when is_integer(Ub) ->
            case Mode of
                min -> Lb;
                max -> Ub;
                ext when Ext -> Ub + 1;
                ext -> Ub
            end;
        {{Lb, _, _}, _} -> Lb + 1000;
        {none, [V | _]} -> V;
        {none, []} -> case Mode of min -> 0; _ -> 100000 end
    end.

enumerated({Root, Ext}, #{mode := Mode}) ->
    pick_enum(Mode, Root, Ext);
enumerated(Root, #{mode := Mode}) ->
    pick_enum(Mode, Root, []).

pick_enum(ext, _Root, [{V, _} | _]) -> V;
pick_enum(min, [{V, _} | _], _) -> V;
pick_enum(_, Root, _) -> element(1, lists:last(Root)).

%% The size a string or list takes in this mode; lists inside lists stay short at their upper
%% end, or one IE would not fit a PDU.
size(C, #{mode := Mode, cap := Cap} = Cfg, Kind) ->
    N = case range(C, 'SizeConstraint') of
            none -> case Mode of min -> 0; _ -> ?UNBOUNDED end;
            {Lb, _, _} when Mode =:= min -> Lb;
            {Lb, 'MAX', _} -> max(Lb, ?UNBOUNDED);
            {_, Ub, true} when Mode =:= ext -> Ub + 1;
            {_, Ub, _} -> Ub
        end,
    Lb0 = case range(C, 'SizeConstraint') of none -> 0; {L, _, _} -> L end,
    Inner = Kind =:= list andalso maps:get(depth, Cfg) > 1,
    max(Lb0, min(N, if Inner -> min(Cap, 2); true -> Cap end)).

%% An OCTET STRING (CONTAINING X): empty at the lower end, else an encoding of X.
containing(_, #{mode := min}) -> <<>>;
containing(Ref, Cfg) ->
    {ok, Bin} = (get(mod)):encode(Ref, gen_ref(Ref, Cfg#{mode := min, opt := all, depth := 0})),
    Bin.

%% Octets that read as decimal digits wherever a dissector takes them for digits (PLMN, IMSI);
%% an IMSI of the most octets ends in a filler, as it has 15 digits at most.
octets(N, Name) ->
    Digits = [lists:nth(1 + I rem 5, [16#21, 16#43, 16#65, 16#87, 16#09]) || I <- lists:seq(0, N - 1)],
    case lists:suffix("_iMSI", atom_to_list(Name)) andalso N >= 8 of
        true -> list_to_binary(lists:droplast(Digits) ++ [16#F9]);
        false -> list_to_binary(Digits)
    end.

bits(N) ->
    Bytes = octets((N + 7) div 8, bits),
    <<B:N/bitstring, _/bitstring>> = Bytes,
    B.

text(N) -> [$A + (I rem 26) || I <- lists:seq(0, N - 1)].

list(Item, Name, C, Cfg = #{depth := D}) ->
    case Item of
        {type, _, {'SEQUENCE', _, {simpletableattributes, {_, Set}, Key, _, _, _, _}, _, Comps}, _, _, _} ->
            table_list(Set, Key, Comps, C, Cfg);
        _ ->
            N = size(C, Cfg#{depth := D + 1}, list),
            [gen(Item, item_name(Name, Item), [], Cfg#{depth := D + 1}) || _ <- lists:seq(1, N)]
    end.

item_name(_Name, {type, _, {'Externaltypereference', _, _, Ref}, _, _, _}) -> Ref;
item_name(Name, _) -> list_to_atom(atom_to_list(Name) ++ "_SEQOF").

%% A list of table-constrained fields: the IEs of a message's container, or a list of single
%% containers of one kind.
table_list(Set, Key, Comps, C, Cfg) ->
    Objs = objects(Set),
    case maps:get(container, Cfg, false) of
        true ->
            Chosen = [O || O = {Id, Fields} <- Objs, wanted(Id, Fields, Cfg)],
            [table_field(Key, Comps, O, ie_cfg(Id, Cfg)) || O = {Id, _} <- Chosen];
        false when Objs =:= [] -> [];
        false ->
            N = size(C, Cfg, list),
            [table_field(Key, Comps, lists:nth(1 + I rem length(Objs), Objs), Cfg) || I <- lists:seq(0, N - 1)]
    end.

wanted(Id, Fields, Cfg) ->
    maps:get(focus, Cfg, none) =:= Id orelse
        maps:get(opt, Cfg) =:= all orelse
        value_of(field(presence, Fields)) =:= mandatory.

%% The IE in focus takes the variant's upper end; the others stay at their lower end.
ie_cfg(Id, Cfg = #{focus := Id, alt := ext}) -> Cfg#{mode := ext, opt := all, container := false};
ie_cfg(Id, Cfg = #{focus := Id}) -> Cfg#{mode := max, opt := all, container := false};
ie_cfg(_, Cfg = #{focus := _}) -> Cfg#{mode := min, alt := 0, container := false};
ie_cfg(_, Cfg) -> Cfg#{container := false}.

table_field(Key, Comps, {KeyValue, Fields}, Cfg) ->
    Vals = [case element(3, Comp) of
                Key -> KeyValue;
                criticality -> value_of(field(criticality, Fields));
                _ -> object_value(Fields, Cfg)
            end || Comp <- root(Comps)],
    list_to_tuple(['ProtocolIE-Field' | Vals]).

object_value(Fields, Cfg) ->
    Whole = lists:suffix("-Message", id_name(field(id, Fields))),
    case field('Value', Fields) of
        _ when Whole, map_get(mode, Cfg) =/= min -> get(message);
        {'Externaltypereference', _, _, Ref} -> gen_ref(Ref, Cfg);
        {type, _, _, _, _, _} = T -> gen(T, value, [], Cfg);
        {typedef, _, _, _, {type, _, _, _, _, _} = T} -> gen(T, value, [], Cfg);
        undefined -> erlang:error({no_value, Fields})
    end.

sequence(RecName, Comps, Cfg = #{depth := D}) ->
    Vals = [component(Kind, Comp, RecName, Cfg#{depth := D + 1}) || {Kind, Comp} <- record_fields(Comps)],
    list_to_tuple([RecName | Vals]).

component(ext, _, _, _) -> asn1_NOVALUE;
component(root, {'ComponentType', _, _, {type, _, {'SEQUENCE OF', {type, _, {'SEQUENCE', 'ProtocolExtensionField', _, _, _}, _, _, _}}, _, _, _}, _, _, _}, _, _) ->
    asn1_NOVALUE;   % extension containers: never sent, dropped when received
component(root, {'ComponentType', _, protocolIEs, Type, _, _, _}, RecName, Cfg) ->
    gen(Type, RecName, [], Cfg#{container => true, depth := 0});
component(root, {'ComponentType', _, CName, Type, Prop, _, _}, RecName, Cfg) ->
    case Prop =/= mandatory andalso maps:get(opt, Cfg) =:= none of
        true -> asn1_NOVALUE;
        false -> gen(Type, inline_name(RecName, CName), [], Cfg)
    end.

inline_name(RecName, CName) -> list_to_atom(atom_to_list(RecName) ++ "_" ++ atom_to_list(CName)).

%% Alternative `alt` of the root (wrapping), or the first extension alternative.
choice(Alts, Name, Cfg) ->
    {Root, Ext} = case Alts of {R, E} -> {usable(R), usable(E)}; R -> {usable(R), []} end,
    {'ComponentType', _, AName, Type, _, _, _} =
        case maps:get(alt, Cfg) of
            ext when Ext =/= [] -> hd(Ext);
            ext -> lists:last(Root);
            last -> lists:last(Root);
            K -> lists:nth(1 + K rem length(Root), Root)
        end,
    {AName, gen(Type, inline_name(Name, AName), [], Cfg)}.

%% An alternative whose type is a container of an empty object set cannot be given a value.
usable(Alts) ->
    [A || A = {'ComponentType', _, _, Type, _, _, _} <- Alts, not empty_container(Type)].

empty_container({type, _, {'SEQUENCE', _, {simpletableattributes, {_, Set}, _, _, _, _, _}, _, _}, _, _, _}) ->
    objects(Set) =:= [];
empty_container(_) -> false.
